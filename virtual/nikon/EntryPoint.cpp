// The one function of a driver module: every command is checked, logged, counted, and made to
// misbehave on request here.
#include <algorithm>
#include <new>

#include "common/Configure.h"
#include "common/Text.h"
#include "nikon/Cameras.h"
#include "nikon/Codes.h"
#include "nikon/Commands.h"

namespace virtualnikon {

namespace {

// Leaves what the command entered, however it ends.
class CallUnderWay
{
public:
    explicit CallUnderWay(World& world) : m_world(world)
    {
        ++m_world.underWay;
        m_self =
            m_world.callsUnderWay.insert(m_world.callsUnderWay.end(), std::this_thread::get_id());
    }
    ~CallUnderWay()
    {
        m_world.callsUnderWay.erase(m_self);
        --m_world.underWay;
        m_world.changed.notify_all();
    }
    CallUnderWay(const CallUnderWay&) = delete;
    CallUnderWay& operator=(const CallUnderWay&) = delete;

private:
    World& m_world;
    std::list<std::thread::id>::iterator m_self;
};

void checkThread(World& world, const Command& command)
{
    const std::thread::id self = std::this_thread::get_id();
    const auto other = std::find_if(world.callsUnderWay.begin(), world.callsUnderWay.end(),
                                    [&](std::thread::id thread) { return thread != self; });
    if (other != world.callsUnderWay.end() && world.options.oneThread != 0) {
        misuse(world.log, command,
               "called by " + world.log.threadName(self) + " while " +
                   world.log.threadName(*other) + " is inside");
    }
}

// Finds the command's object. Answers a result when there is none.
std::optional<MaidResult> findObject(World& world, Command& command)
{
    if (command.record == nullptr && command.command == kMaidCommandOpen) {
        return std::nullopt;
    }
    command.object = world.objects.find(command.record);
    if (command.object == nullptr) {
        misuse(world.log, command,
               command.record == nullptr                 ? "no object"
               : world.objects.wasClosed(command.record) ? "closed object"
                                                         : "unknown object");
        return result::kNoObject;
    }
    const MaidObject& record = *command.record;
    const Object& object = *command.object;
    if (record.moduleRef != object.handle || record.clientRef != object.clientRef ||
        record.type != object.level || record.id != object.id) {
        misuse(world.log, command, "the record of " + object.name() + " was changed");
    }
    return std::nullopt;
}

void applyFault(World& world, Lock& lock, Command& command)
{
    CommandFacts facts;
    facts.name = command.name();
    if (command.isOfCapability()) {
        facts.capability = command.parameter;
    }
    facts.level = command.object == nullptr ? 0 : command.object->level;
    facts.object = command.object == nullptr ? 0 : command.object->id;
    command.fault = world.rules.next(facts);
    command.how.calls = static_cast<int>(world.options.completeCalls);
    command.how.ms = static_cast<int>(world.options.completeMs);
    command.how.isOnThread = world.options.completeThread != 0;
    command.how = command.fault.completion.value_or(command.how);
    if (command.fault.unplugs) {
        for (const auto& camera : world.cameras) {
            const bool concerns = command.object == nullptr || command.object->camera == nullptr ||
                                  command.object->camera == camera;
            if (camera != nullptr && concerns) {
                unplug(world, *camera);
            }
        }
    }
    if (command.fault.delayMs > 0) {
        const auto due = Clock::now() + std::chrono::milliseconds(command.fault.delayMs);
        world.changed.wait_until(lock, due, [&] { return due <= Clock::now(); });
    }
    if (command.fault.hangs) {
        world.hang(lock, command.name(), [] { return false; });
    }
}

// Does the work, or has it done when the command completes.
MaidResult work(World& world, Lock& lock, Command& command)
{
    const bool isRefused = command.fault.code && !command.fault.isAfter;
    if (isRefused) {
        const bool isTakingAway = command.command == kMaidCommandCapSet &&
                                  command.dataType == kMaidDataTypeNull &&
                                  command.object != nullptr;
        if (isTakingAway) {
            command.object->keptByRule.insert(command.parameter);
        }
        return *command.fault.code;
    }
    const bool canWait = command.procedure != nullptr && command.how.isDataLate &&
                         command.needsCompletion() && command.command != kMaidCommandCapStart;
    if (!canWait) {
        return perform(world, lock, command);
    }
    const PendingRef pending = pendingOf(command, kMaidOk);
    pending->lateWork = [&world, command] {
        Command late = command;
        Lock none;
        return perform(world, none, late);
    };
    command.isHandedOver = true;
    addPending(world, pending);
    return kMaidOk;
}

MaidResult answer(World& world, Lock& lock, Command& command)
{
    const Clock::time_point start = Clock::now();
    const CallUnderWay underWay(world);
    if (command.command == kMaidCommandOpen && command.record == nullptr) {
        virtualcamera::readEnvironment(virtualcamera::maker(), "LUMATIE_VIRTUAL_NIKON");
    }
    checkThread(world, command);
    const std::optional<MaidResult> refusal = findObject(world, command);
    MaidResult result = refusal.value_or(kMaidOk);
    const std::string target =
        command.object == nullptr ? std::string("none") : command.object->name();
    if (!refusal) {
        applyFault(world, lock, command);
        develop(world);
        result = work(world, lock, command);
        if (command.fault.isAfter && command.fault.code) {
            result = *command.fault.code;
        }
    }
    const bool runsWork = command.command == kMaidCommandAsync && result >= 0;
    if (runsWork || command.command == kMaidCommandEnumChildren || world.options.eventsInAll != 0) {
        deliverEvents(world, lock);
    }
    // Without its object a completion has nothing that it could be about, but it is waited for.
    if (command.procedure != nullptr && !command.isHandedOver) {
        const PendingRef pending = pendingOf(command, result);
        if (command.object == nullptr) {
            pending->object = std::make_shared<Object>();
        }
        const bool isOpen = command.object != nullptr && command.object->isOpen;
        if (command.how.isAtOnce() || !isOpen) {
            complete(world, lock, pending);
        } else {
            addPending(world, pending);
        }
    }
    if (runsWork) {
        runPending(world, lock);
    }
    world.log.count(command.name());
    world.log.write(std::string(command.name()) + "(" + target + ", " +
                        virtualcamera::hexadecimal(command.parameter) +
                        ") = " + std::to_string(result),
                    start);
    return result;
}

}  // namespace

bool Command::isOfCapability() const
{
    return command >= kMaidCommandCapStart && command <= kMaidCommandCapGetArray;
}

bool Command::needsCompletion() const
{
    return command != kMaidCommandAsync && command != kMaidCommandOpen &&
           command != kMaidCommandClose;
}

PendingRef pendingOf(const Command& command, MaidResult result)
{
    auto pending = std::make_shared<Pending>(command);
    pending->object = command.object;
    pending->how = command.how;
    pending->result = result;
    return pending;
}

void misuse(virtualcamera::CallLog& log, const Command& command, const std::string& text)
{
    log.misuse(std::string(command.name()) + ": " + text);
}

}  // namespace virtualnikon

extern "C" MaidResult MAIDAPI MAIDEntryPoint(MaidObject* object, std::uint32_t command,
                                             std::uint32_t parameter, std::uint32_t dataType,
                                             MaidData data, MaidCompletionProcedure completion,
                                             MaidReference reference)
{
    namespace vn = virtualnikon;
    vn::Command asked({object, command, parameter, dataType, data, completion, reference});
    try {
        vn::World& world = vn::world();
        vn::Lock lock(world.mutex);
        return vn::answer(world, lock, asked);
    } catch (const std::bad_alloc&) {
        return kMaidOutOfMemory;
    } catch (...) {
        return vn::result::kUnexpected;
    }
}
