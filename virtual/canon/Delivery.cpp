// The library's own threads, and the events that they bring to the application.
#include <algorithm>

#include "canon/Codes.h"
#include "canon/World.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

std::string describe(const Event& event, EdsBaseRef reference)
{
    std::string text = "event " + steering::hexadecimal(event.code);
    if (event.eventClass == EventClass::kObject) {
        return text + " " + ObjectTable::nameOf(reference);
    }
    if (event.eventClass == EventClass::kProperty) {
        text += " property " + steering::hexadecimal(event.property);
    }
    return text + " parameter " + std::to_string(event.parameter);
}

bool hasHandler(const Event& event)
{
    switch (event.eventClass) {
        case EventClass::kProperty:
            return event.connection->onProperty.function != nullptr;
        case EventClass::kObject:
            return event.connection->onObject.function != nullptr;
        default:
            return event.connection->onState.function != nullptr;
    }
}

// The reference an object event carries: a fresh one for a picture file, the steered one else.
EdsBaseRef referenceOf(World& world, const Event& event)
{
    if (event.file == nullptr) {
        return event.reference;
    }
    Object object;
    object.kind = Kind::kItem;
    object.item = std::make_shared<Item>();
    object.item->connection = event.connection;
    object.item->file = event.file;
    object.item->bytes = event.bytes;
    return world.objects.add(std::move(object));
}

std::uint32_t callHandler(const Event& event, const Connection& handlers, EdsBaseRef reference)
{
    switch (event.eventClass) {
        case EventClass::kProperty:
            return handlers.onProperty.function(event.code, event.property, event.parameter,
                                                handlers.onProperty.context);
        case EventClass::kObject:
            return handlers.onObject.function(event.code, reference, handlers.onObject.context);
        default:
            return handlers.onState.function(event.code, event.parameter, handlers.onState.context);
    }
}

// Calls the handler on this thread, with the lock given up.
void deliver(World& world, Lock& lock, Crew& crew, const Event& event)
{
    const Clock::time_point start = Clock::now();
    if (!hasHandler(event)) {
        world.log.write(describe(event, event.reference) + " has no handler", start);
        if (event.reference != nullptr) {
            world.objects.release(event.reference);
        }
        world.changed.notify_all();
        return;
    }
    const EdsBaseRef reference = referenceOf(world, event);
    const Connection handlers = *event.connection;  // the application may exchange them meanwhile
    const auto self = crew.handling.insert(crew.handling.end(), std::this_thread::get_id());
    if (event.file != nullptr && event.code == event::kTransferRequested) {
        ++event.file->announced;
    }

    lock.unlock();
    const std::uint32_t answer = callHandler(event, handlers, reference);
    lock.lock();

    crew.handling.erase(self);
    ++world.deliveries[event.code];
    world.log.write(describe(event, reference) + " = " + steering::hexadecimal(answer), start);
    world.changed.notify_all();
}

// The first event that is due, for the calling thread itself or for the library's.
std::list<Event>::iterator nextEvent(Crew& crew, bool isInside)
{
    return std::find_if(crew.events.begin(), crew.events.end(), [&](const Event& event) {
        return event.isInside == isInside && (isInside || event.due <= Clock::now());
    });
}

// Until something is due, or there is something new to look at.
void waitForWork(World& world, Lock& lock, const Crew& crew)
{
    Clock::time_point due = Clock::time_point::max();
    for (const Event& event : crew.events) {
        if (!event.isInside) {
            due = std::min(due, event.due);
        }
    }
    for (const Exposure& exposure : crew.exposures) {
        due = std::min(due, exposure.due);
    }
    if (due == Clock::time_point::max()) {
        world.work.wait(lock);
    } else {
        world.work.wait_until(lock, due);
    }
}

void deliverEvents(World& world, Lock& lock, Crew& crew)
{
    while (!crew.isStopping) {
        const auto next = nextEvent(crew, false);
        if (next == crew.events.end()) {
            waitForWork(world, lock, crew);
            continue;
        }
        const Event event = *next;
        crew.events.erase(next);
        deliver(world, lock, crew, event);
    }
}

void endExposures(World& world, Lock& lock, Crew& crew)
{
    while (!crew.isStopping) {
        const auto next =
            std::find_if(crew.exposures.begin(), crew.exposures.end(),
                         [](const Exposure& exposure) { return exposure.due <= Clock::now(); });
        if (next == crew.exposures.end()) {
            waitForWork(world, lock, crew);
            continue;
        }
        const Exposure exposure = *next;
        crew.exposures.erase(next);
        exposure.body->exposures = std::max(0, exposure.body->exposures - 1);
        ++crew.developing;
        developPicture(world, lock, exposure, &crew);
        --crew.developing;
        world.changed.notify_all();
    }
}

using Duty = void (*)(World& world, Lock& lock, Crew& crew);

void serve(World& world, const std::shared_ptr<Crew>& crew, Duty duty)
{
    Lock lock(world.mutex);
    const std::thread::id self = std::this_thread::get_id();
    world.log.markOwn(self);
    crew->ids.push_back(self);
    duty(world, lock, *crew);
    world.log.forget(self);
    --crew->running;
    world.changed.notify_all();
}

void join(World& world, Lock& lock, const std::shared_ptr<Crew>& crew)
{
    std::vector<std::thread> threads;
    threads.swap(crew->threads);
    lock.unlock();
    for (std::thread& thread : threads) {
        thread.join();
    }
    lock.lock();
    world.changed.notify_all();
}

// Threads that ended after their terminate had returned.
void joinRetired(World& world, Lock& lock)
{
    std::vector<std::shared_ptr<Crew>> still;
    std::vector<std::shared_ptr<Crew>> ended;
    for (const auto& crew : world.retired) {
        (crew->running == 0 ? ended : still).push_back(crew);
    }
    world.retired.swap(still);
    for (const auto& crew : ended) {
        join(world, lock, crew);
    }
}

bool isHandledElsewhere(const Crew& crew)
{
    return std::any_of(crew.handling.begin(), crew.handling.end(),
                       [](std::thread::id thread) { return thread != std::this_thread::get_id(); });
}

// Gives up on a handler that does not return; a call that it is in ends.
void awaitHandlers(World& world, Lock& lock, const std::shared_ptr<Crew>& crew)
{
    const auto awaited = world.stopping.insert(world.stopping.end(), crew);
    const auto patience = Clock::now() + std::chrono::milliseconds(world.options.patienceMs);
    if (!world.changed.wait_until(lock, patience, [&] { return !isHandledElsewhere(*crew); })) {
        world.log.misuse("EdsTerminateSDK: an event handler does not return");
    }
    world.stopping.erase(awaited);
    ++world.generation;
    world.changed.notify_all();
}

// Events that nobody will get: references that a test put into them go with them.
void dropEvents(World& world, Crew& crew)
{
    for (const Event& event : crew.events) {
        if (event.reference != nullptr) {
            world.objects.release(event.reference);
        }
    }
    crew.events.clear();
    crew.exposures.clear();
}

void deliverTheRest(World& world, Lock& lock, Crew& crew)
{
    while (!crew.events.empty()) {
        const Event event = crew.events.front();
        crew.events.pop_front();
        deliver(world, lock, crew, event);
    }
}

}  // namespace

void startCrew(World& world, Lock& lock)
{
    joinRetired(world, lock);
    if (world.crew != nullptr) {
        return;
    }
    ++world.generation;
    const auto crew = std::make_shared<Crew>();
    world.crew = crew;
    for (std::int64_t i = 0; i < world.options.eventThreads; ++i) {
        ++crew->running;
        crew->threads.emplace_back([&world, crew] { serve(world, crew, deliverEvents); });
    }
    ++crew->running;
    crew->threads.emplace_back([&world, crew] { serve(world, crew, endExposures); });
}

void stopCrew(World& world, Lock& lock)
{
    const std::shared_ptr<Crew> crew = world.crew;
    if (world.options.eventsAtEnd != 0) {
        deliverTheRest(world, lock, *crew);
    }
    ++world.generation;
    world.crew = nullptr;
    crew->isStopping = true;
    dropEvents(world, *crew);
    world.work.notify_all();
    world.changed.notify_all();

    awaitHandlers(world, lock, crew);

    // A thread that is busy with a picture, or that terminates from its own handler, is left to
    // end by itself. All others end at once, as soon as the machine lets them.
    const std::thread::id self = std::this_thread::get_id();
    const bool isOwn = std::find(crew->ids.begin(), crew->ids.end(), self) != crew->ids.end();
    const auto soon = Clock::now() + std::chrono::milliseconds(crew->developing != 0 ? 3 : 1000);
    const bool ended =
        !isOwn && world.changed.wait_until(lock, soon, [&] { return crew->running == 0; });
    if (ended) {
        join(world, lock, crew);
    } else {
        world.retired.push_back(crew);
    }
}

void raise(World& world, Event event)
{
    if (world.crew == nullptr || event.connection == nullptr) {
        return;
    }
    std::optional<std::uint32_t> property;
    if (event.eventClass == EventClass::kProperty) {
        property = event.property;
    }
    const steering::EventFate fate = world.eventRules.next(event.code, property);
    if (fate.lost) {
        if (event.reference != nullptr) {
            world.objects.release(event.reference);
        }
        return;
    }

    event.due = Clock::now() + std::chrono::milliseconds(fate.delayMs);
    std::list<Event>& events = world.crew->events;
    const auto later = std::find_if(events.begin(), events.end(),
                                    [&](const Event& other) { return other.due > event.due; });
    events.insert(later, event);
    if (fate.doubled) {
        events.insert(later, event);
    }
    world.work.notify_all();
}

void raiseChanges(World& world, const std::shared_ptr<Connection>& connection,
                  const Changes& changes)
{
    if (connection == nullptr || !connection->isOpen) {
        return;
    }
    Event event;
    event.connection = connection;
    event.isInside = world.options.eventsInside != 0 && world.underWay > 0;
    for (const std::uint32_t id : changes.values) {
        event.code = event::kPropertyChanged;
        event.property = id;
        raise(world, event);
    }
    for (const std::uint32_t id : changes.lists) {
        event.code = event::kListChanged;
        event.property = id;
        raise(world, event);
    }
}

void deliverInside(World& world, Lock& lock)
{
    while (world.crew != nullptr) {
        const std::shared_ptr<Crew> crew = world.crew;
        const auto next = nextEvent(*crew, true);
        if (next == crew->events.end()) {
            return;
        }
        const Event event = *next;
        crew->events.erase(next);
        deliver(world, lock, *crew, event);
    }
}

}  // namespace virtualcanon
