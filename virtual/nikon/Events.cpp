#include "nikon/Events.h"

#include <algorithm>

#include "common/Text.h"
#include "nikon/World.h"

namespace virtualnikon {

namespace {

// Events that cause events must not hold a call for ever.
constexpr int kEventsPerCall = 10000;

// True when there is nothing to tell any more.
bool isStale(const ObjectTable& objects, const Event& event, const ObjectRef& object)
{
    if (object == nullptr || !object->isOpen) {
        return true;
    }
    if (event.isForced || event.code != kMaidEventAddChild) {
        return false;
    }
    const auto id = static_cast<std::uint32_t>(event.parameter);
    const bool isListed = event.item == nullptr || event.item->isListed;
    return !isListed || objects.child(*object, id) != nullptr;
}

void deliver(World& world, Lock& lock, const Event& event)
{
    const Clock::time_point start = Clock::now();
    const ObjectRef object = event.object.lock();
    if (isStale(world.objects, event, object)) {
        return;
    }
    const std::string text = "event " + virtualcamera::hexadecimal(event.code) + " " +
                             object->name() + " parameter " +
                             virtualcamera::hexadecimal(event.parameter);
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

void noteInventedChild(World& world, const Event& event)
{
    const ObjectRef object = event.object.lock();
    if (object != nullptr && event.code == kMaidEventAddChild) {
        world.inventedChildren.insert({object->level, static_cast<std::uint32_t>(event.parameter)});
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
    const virtualcamera::EventFate fate = world.eventRules.next(event.code, property);
    if (fate.lost) {
        return;
    }
    event.due = Clock::now() + std::chrono::milliseconds(fate.delayMs);
    world.events.push_back(event);
    if (fate.doubled) {
        event.isForced = true;
        noteInventedChild(world, event);
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

}  // namespace virtualnikon
