#include "nikon/MaidProcedures.h"

#include <string>

#include "Memory.h"
#include "nikon/Console.h"
#include "nikon/MaidCommands.h"
#include "nikon/MaidTree.h"

namespace nikon {

namespace {

// A module that raises events inside of events without end is not followed for ever.
constexpr int kMostNestedEvents = 32;

// Counts the events that the calling thread is in.
class EventDepth
{
public:
    EventDepth() { ++depth(); }
    EventDepth(const EventDepth&) = delete;
    EventDepth& operator=(const EventDepth&) = delete;
    ~EventDepth() { --depth(); }

    static bool isTooDeep() { return depth() > kMostNestedEvents; }

private:
    static int& depth()
    {
        thread_local int count = 0;
        return count;
    }
};

// The name of an object's level in messages.
const char* nameOf(std::uint32_t level)
{
    switch (level) {
        case kMaidLevelModule:
            return "Module";
        case kMaidLevelSource:
            return "Source";
        case kMaidLevelItem:
            return "Item";
        default:
            return "Data";
    }
}

void sayNotSupported(const char* event, std::uint32_t level)
{
    const std::string text =
        std::string(event) + " to " + nameOf(level) + " object is not supported.\n";
    Console::puts(text.c_str());
}

void addChild(MaidTree& tree, const MaidObjectPtr& ref, std::uint32_t level, std::int32_t id)
{
    if (level == kMaidLevelData) {
        sayNotSupported("Event_AddChild", level);
        return;
    }
    if (tree.driver().phase() != MaidDriver::Phase::running) {
        // The session ends: what is opened now would only have to be closed again.
        return;
    }
    const bool isKnown = ref == tree.source() && tree.tellItemObserver(id);
    // The picture of before is over; one that was not written yet is only announced once more.
    if (tree.FindChild(ref, id) && !(isKnown && tree.CloseChild(ref, id))) {
        return;
    }
    const MaidObjectPtr child = tree.OpenChild(ref, id);
    if (child && level != kMaidLevelItem) {
        EnumChildren(tree.driver(), child);
    }
}

void removeChild(MaidTree& tree, const MaidObjectPtr& ref, std::uint32_t level, std::int32_t id)
{
    if (level == kMaidLevelData) {
        sayNotSupported("Event_RemoveChild", level);
        return;
    }
    if (ref == tree.source()) {
        tree.tellItemObserver(id);
    }
    tree.CloseChild(ref, id);
}

void react(MaidTree& tree, const MaidObjectPtr& ref, std::uint32_t level, std::uint32_t event,
           MaidData parameter)
{
    const auto id = static_cast<std::int32_t>(parameter);
    switch (event) {
        case kMaidEventAddChild:
            addChild(tree, ref, level, id);
            break;
        case kMaidEventRemoveChild:
            removeChild(tree, ref, level, id);
            break;
        case kMaidEventWarmingUp:
            sayNotSupported("Event_WarmingUp", level);
            break;
        case kMaidEventWarmedUp:
            sayNotSupported("Event_WarmedUp", level);
            break;
        case kMaidEventCapChange:
            GetCapInfo(tree.driver(), ref);
            break;
        case kMaidEventOrphanedChildren:
            if (level == kMaidLevelData) {
                sayNotSupported("Event_OrphanedChildren", level);
            }
            break;
        case kMaidEventCapChangeValue:
            Console::print("The value of Capability(CapID=0x%llX) was changed.\n",
                           static_cast<unsigned long long>(parameter));
            break;
        default: {
            const std::string text =
                std::string("Detected unknown Event to the ") + nameOf(level) + " object.\n";
            Console::puts(text.c_str());
        }
    }
}

template <std::uint32_t level>
void MAIDAPI onEvent(MaidReference reference, std::uint32_t event, MaidData parameter)
{
    const MaidObjectPtr ref = objectHandles().find(reference);
    const std::shared_ptr<MaidTree> tree = ref ? ref->tree.lock() : nullptr;
    if (!tree) {
        return;
    }
    tree->driver().heartbeat()->note();
    const EventDepth depth;
    const MaidDriver::Guard guard(tree->driver());
    if (guard && !ref->closed && !EventDepth::isTooDeep()) {
        doOrGiveUp("an event", [&] { react(*tree, ref, level, event, parameter); });
    }
}

}  // namespace

Handles<MaidObjectRef>& objectHandles()
{
    // Never destroyed: a module that was left behind may raise an event at any time.
    static auto* const all = new Handles<MaidObjectRef>;
    return *all;
}

MaidEventProcedure eventProcedure(std::uint32_t level)
{
    switch (level) {
        case kMaidLevelModule:
            return onEvent<kMaidLevelModule>;
        case kMaidLevelSource:
            return onEvent<kMaidLevelSource>;
        case kMaidLevelItem:
            return onEvent<kMaidLevelItem>;
        case kMaidLevelData:
            return onEvent<kMaidLevelData>;
        default:
            return nullptr;
    }
}

void MAIDAPI showProgress(std::uint32_t /*command*/, std::uint32_t /*parameter*/,
                          MaidReference reference, std::uint32_t done, std::uint32_t total)
{
    const MaidObjectPtr ref = objectHandles().find(reference);
    const std::shared_ptr<MaidTree> tree = ref ? ref->tree.lock() : nullptr;
    if (tree) {
        tree->driver().heartbeat()->note();
        doOrGiveUp("the progress", [&] { tree->progressBar().show(done, total); });
    }
}

std::uint32_t MAIDAPI answerUser(MaidReference /*reference*/, void* /*request*/)
{
    return 0;
}

}  // namespace nikon
