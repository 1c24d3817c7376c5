// Commands that complete later, and the events that wait for the application to look in.
#include <algorithm>

#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/World.h"

namespace virtualnikon {

namespace {

// Events that cause events must not hold a call for ever.
constexpr int kEventsPerCall = 10000;

std::string describe(const Pending& pending, MaidResult result)
{
    return std::string("completion ") + commandName(pending.command) + "(" +
           pending.object->name() + ", " + steering::hexadecimal(pending.parameter) +
           ") = " + std::to_string(result);
}

bool isWaiting(const World& world, const PendingRef& pending)
{
    return std::find(world.pending.begin(), world.pending.end(), pending) != world.pending.end();
}

void callCompletion(World& world, Lock& lock, const Pending& pending, MaidResult result)
{
    const Clock::time_point start = Clock::now();
    ++world.delivering;
    lock.unlock();
    pending.procedure(pending.record, pending.command, pending.parameter, pending.dataType,
                      pending.data, pending.reference, result);
    lock.lock();
    --world.delivering;
    if (pending.wasLeft) {
        world.log.write(describe(pending, result), start);
    }
    world.changed.notify_all();
}

PendingRef dueOnThread(const World& world)
{
    for (const PendingRef& pending : world.pending) {
        const Completion& how = pending->how;
        if (pending->isReady && how.isOnThread && !how.isNever && pending->due <= Clock::now()) {
            return pending;
        }
    }
    return nullptr;
}

void serve(World& world)
{
    Lock lock(world.mutex);
    world.log.markOwn(std::this_thread::get_id());
    while (!world.isThreadStopping) {
        if (const PendingRef pending = dueOnThread(world)) {
            world.pending.remove(pending);
            world.threadInside = pending->object.get();
            complete(world, lock, pending);
            world.threadInside = nullptr;
            world.changed.notify_all();
            continue;
        }
        Clock::time_point due = Clock::time_point::max();
        for (const PendingRef& pending : world.pending) {
            if (pending->isReady && pending->how.isOnThread && !pending->how.isNever) {
                due = std::min(due, pending->due);
            }
        }
        if (due == Clock::time_point::max()) {
            world.changed.wait(lock);
        } else {
            world.changed.wait_until(lock, due);
        }
    }
    world.log.forget(std::this_thread::get_id());
}

// True when there is nothing to tell any more.
bool isStale(const World& world, const Event& event, const ObjectRef& object)
{
    if (object == nullptr || !object->isOpen) {
        return true;
    }
    if (event.isForced || event.code != kMaidEventAddChild) {
        return false;
    }
    const auto id = static_cast<std::uint32_t>(event.parameter);
    const bool isListed = event.item == nullptr || event.item->isListed;
    return !isListed || world.objects.child(*object, id) != nullptr;
}

void deliver(World& world, Lock& lock, const Event& event)
{
    const Clock::time_point start = Clock::now();
    const ObjectRef object = event.object.lock();
    if (isStale(world, event, object)) {
        return;
    }
    const std::string text = "event " + steering::hexadecimal(event.code) + " " + object->name() +
                             " parameter " + steering::hexadecimal(event.parameter);
    const auto found = object->procedures.find(kMaidCapEventProc);
    if (found == object->procedures.end()) {
        world.log.write(text + " has no procedure", start);
        return;
    }
    const MaidCallback callback = found->second;
    if (event.item != nullptr) {
        ++event.item->picture->announced;
    }
    ++world.delivering;
    lock.unlock();
    reinterpret_cast<MaidEventProcedure>(callback.procedure)(
        event.hasReference ? event.reference : callback.reference, event.code,
        static_cast<MaidData>(event.parameter));
    lock.lock();
    --world.delivering;
    ++world.deliveries[event.code];
    world.log.write(text, start);
    world.changed.notify_all();
}

}  // namespace

void noteUntrueChild(World& world, const Event& event)
{
    const ObjectRef object = event.object.lock();
    if (object != nullptr && event.code == kMaidEventAddChild) {
        world.untrueChildren.insert({object->level, static_cast<std::uint32_t>(event.parameter)});
    }
}

void raise(World& world, Event event)
{
    if (event.object.expired()) {
        return;
    }
    std::optional<std::uint32_t> property;
    if (event.code == kMaidEventCapChangeValue) {
        property = static_cast<std::uint32_t>(event.parameter);
    }
    const steering::EventFate fate = world.eventRules.next(event.code, property);
    if (fate.lost) {
        return;
    }
    event.due = Clock::now() + std::chrono::milliseconds(fate.delayMs);
    world.events.push_back(event);
    if (fate.doubled) {
        event.isForced = true;
        noteUntrueChild(world, event);
        world.events.push_back(event);
    }
    world.changed.notify_all();
}

void raiseChanges(World& world, const Camera& camera, const Changes& changes)
{
    for (const ObjectRef& object : world.objects.all()) {
        if (object->level != kMaidLevelSource || object->camera.get() != &camera) {
            continue;
        }
        Event event;
        event.object = object;
        if (changes.descriptors) {
            event.code = kMaidEventCapChange;
            raise(world, event);
        }
        event.code = kMaidEventCapChangeValue;
        for (const std::uint32_t id : changes.values) {
            event.parameter = id;
            raise(world, event);
        }
    }
}

void raiseDescriptorChange(World& world, std::uint32_t level)
{
    for (const ObjectRef& object : world.objects.all()) {
        if (object->level == level) {
            Event event;
            event.object = object;
            event.code = kMaidEventCapChange;
            raise(world, event);
        }
    }
}

void raiseChild(World& world, std::uint32_t code, const ObjectRef& parent, std::uint32_t id,
                const std::shared_ptr<Item>& item)
{
    if (parent == nullptr) {
        return;
    }
    Event event;
    event.object = parent;
    event.code = code;
    event.parameter = id;
    event.item = item;
    raise(world, event);
}

void deliverEvents(World& world, Lock& lock)
{
    for (int i = 0; i < kEventsPerCall; ++i) {
        const auto next =
            std::find_if(world.events.begin(), world.events.end(),
                         [](const Event& event) { return event.due <= Clock::now(); });
        if (next == world.events.end()) {
            return;
        }
        const Event event = *next;
        world.events.erase(next);
        deliver(world, lock, event);
    }
}

void addPending(World& world, const PendingRef& pending)
{
    pending->wasLeft = true;
    world.pending.push_back(pending);
    if (pending->isReady) {
        finishPending(world, pending, pending->result);
    }
}

void finishPending(World& world, const PendingRef& pending, MaidResult result)
{
    pending->result = result;
    pending->isReady = true;
    pending->exposure = nullptr;
    pending->transfer = nullptr;
    pending->due = Clock::now() + std::chrono::milliseconds(pending->how.ms);
    if (pending->how.isOnThread && !world.thread.joinable()) {
        world.isThreadStopping = false;
        world.loaded = std::make_unique<steering::LoadedWhile>();
        world.thread = std::thread([&world] { serve(world); });
    }
    world.changed.notify_all();
}

void runPending(World& world, Lock& lock)
{
    for (const PendingRef& pending : std::list<PendingRef>(world.pending)) {
        if (!isWaiting(world, pending)) {
            continue;
        }
        if (pending->transfer != nullptr) {
            runTransfer(world, lock, pending, false);
        } else if (pending->exposure != nullptr && world.options.progress == 2) {
            showProgress(world, lock, *pending->object, pending->command, pending->parameter, 1, 0);
        }
        if (!pending->isReady || pending->how.isNever || pending->how.isOnThread) {
            continue;
        }
        pending->how.calls = std::max(0, pending->how.calls - 1);
        const bool isDue = pending->how.calls == 0 && pending->due <= Clock::now();
        if (isDue && isWaiting(world, pending)) {
            world.pending.remove(pending);
            complete(world, lock, pending);
        }
    }
}

void complete(World& world, Lock& lock, const PendingRef& pending)
{
    if (pending->lateWork != nullptr && pending->object->isOpen && !pending->isLast) {
        pending->result = pending->lateWork();
    }
    pending->lateWork = nullptr;
    const MaidResult result = pending->how.result.value_or(pending->result);
    callCompletion(world, lock, *pending, result);
    if (pending->how.isTwice) {
        callCompletion(world, lock, *pending, result);
    }
}

void abortPending(World& world, Lock& lock, const ObjectRef& object)
{
    if (std::this_thread::get_id() != world.thread.get_id()) {
        world.changed.wait(lock, [&] { return world.threadInside != object.get(); });
    }
    for (const PendingRef& pending : std::list<PendingRef>(world.pending)) {
        if (pending->object != object || !isWaiting(world, pending)) {
            continue;
        }
        world.pending.remove(pending);
        if (pending->how.isNever || world.options.closeAborts == 0) {
            continue;
        }
        pending->isLast = true;
        pending->result = result::kAborted;
        complete(world, lock, pending);
    }
}

void stopThread(World& world, Lock& lock)
{
    if (!world.thread.joinable() || world.thread.get_id() == std::this_thread::get_id()) {
        return;
    }
    world.isThreadStopping = true;
    world.changed.notify_all();
    std::thread ended;
    ended.swap(world.thread);
    lock.unlock();
    ended.join();
    lock.lock();
    world.loaded = nullptr;
    world.isThreadStopping = false;
}

}  // namespace virtualnikon
