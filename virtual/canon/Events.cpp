#include "canon/Events.h"

#include <algorithm>

#include "canon/Codes.h"
#include "canon/World.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

std::string describe(const Event& event, EdsBaseRef reference)
{
    std::string text = "event " + virtualcamera::hexadecimal(event.code);
    if (event.eventClass == EventClass::kObject) {
        return text + " " + ObjectTable::nameOf(reference);
    }
    if (event.eventClass == EventClass::kProperty) {
        text += " property " + virtualcamera::hexadecimal(event.property);
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
EdsBaseRef referenceOf(ObjectTable& objects, const Event& event)
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
    return objects.add(std::move(object));
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

}  // namespace

void deliver(World& world, Lock& lock, LibraryThreads& libraryThreads, const Event& event)
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
    const EdsBaseRef reference = referenceOf(world.objects, event);
    const Connection handlers = *event.connection;  // the application may exchange them meanwhile
    const auto self =
        libraryThreads.handling.insert(libraryThreads.handling.end(), std::this_thread::get_id());
    if (event.file != nullptr && event.code == event::kTransferRequested) {
        ++event.file->announced;
    }

    lock.unlock();
    const std::uint32_t answer = callHandler(event, handlers, reference);
    lock.lock();

    libraryThreads.handling.erase(self);
    ++world.deliveries[event.code];
    world.log.write(describe(event, reference) + " = " + virtualcamera::hexadecimal(answer), start);
    world.changed.notify_all();
}

std::list<Event>::iterator nextEvent(LibraryThreads& libraryThreads, bool isInside)
{
    return std::find_if(
        libraryThreads.events.begin(), libraryThreads.events.end(), [&](const Event& event) {
            return event.isInside == isInside && (isInside || event.due <= Clock::now());
        });
}

void raise(World& world, Event event)
{
    if (world.libraryThreads == nullptr || event.connection == nullptr) {
        return;
    }
    std::optional<std::uint32_t> property;
    if (event.eventClass == EventClass::kProperty) {
        property = event.property;
    }
    const virtualcamera::EventFate fate = world.eventRules.next(event.code, property);
    if (fate.lost) {
        if (event.reference != nullptr) {
            world.objects.release(event.reference);
        }
        return;
    }

    event.due = Clock::now() + std::chrono::milliseconds(fate.delayMs);
    std::list<Event>& events = world.libraryThreads->events;
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
    while (world.libraryThreads != nullptr) {
        const std::shared_ptr<LibraryThreads> libraryThreads = world.libraryThreads;
        const auto next = nextEvent(*libraryThreads, true);
        if (next == libraryThreads->events.end()) {
            return;
        }
        const Event event = *next;
        libraryThreads->events.erase(next);
        deliver(world, lock, *libraryThreads, event);
    }
}

}  // namespace virtualcanon
