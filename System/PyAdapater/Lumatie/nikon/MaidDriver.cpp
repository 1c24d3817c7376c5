#include "nikon/MaidDriver.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "DebugLog.h"
#include "ProcessHeartbeat.h"
#include "PyCallback.h"

namespace nikon {

namespace {

constexpr unsigned kLockSlice = 50;  // milliseconds between two looks whether to go on waiting

bool isGood(MaidResult result)
{
    return result == kMaidOk || result == kMaidPending;
}

bool isStart(const MaidCommand& command)
{
    return command.command == kMaidCommandCapStart;
}

bool isCapture(const MaidCommand& command)
{
    return isStart(command) && command.parameter == kMaidCapCapture;
}

unsigned milliseconds(std::chrono::milliseconds time)
{
    return static_cast<unsigned>(time.count());
}

// The modules in use, so that two sessions with one module share its lock.
struct Libraries {
    std::mutex lock;  // guards `used`
    std::map<const void*, std::weak_ptr<MaidLibrary>> used;
};

Libraries& libraries()
{
    static auto* const all = new Libraries;
    return *all;
}

}  // namespace

std::shared_ptr<MaidLibrary> MaidLibrary::load(const char* path)
{
    std::string reason;
    std::unique_ptr<platform::Library> library = platform::Library::load(path, reason);
    if (!library) {
        DebugLog("NIKON driver module cannot be loaded: %s", reason.c_str());
        return nullptr;
    }
    const auto entryPoint =
        reinterpret_cast<MaidEntryPoint>(library->function(kMaidEntryPointName));
    if (entryPoint == nullptr) {
        DebugLog("NIKON driver module has no %s: %s", kMaidEntryPointName, path);
        return nullptr;
    }
    const std::lock_guard<std::mutex> guard(libraries().lock);
    std::weak_ptr<MaidLibrary>& known = libraries().used[library->identity()];
    std::shared_ptr<MaidLibrary> shared = known.lock();
    if (!shared) {
        shared.reset(new MaidLibrary(std::move(library), entryPoint));
        known = shared;
    }
    return shared;
}

bool MaidLibrary::lockFor(unsigned milliseconds)
{
    const bool locked = m_lock.lockFor(milliseconds);
    if (locked) {
        ++m_depth;
    }
    return locked;
}

void MaidLibrary::unlock()
{
    --m_depth;
    m_lock.unlock();
}

void ModuleHeartbeat::note()
{
    noteSilently();
    ProcessHeartbeat::note();
}

// What the module writes to, and what keeps it alive.
struct MaidDriver::Completion {
    std::atomic<std::uint32_t> count{0};
    std::atomic<MaidResult> result{kMaidOk};
    std::shared_ptr<ModuleHeartbeat> heartbeat;
    std::shared_ptr<MaidObject> object;
    std::shared_ptr<void> keep;
};

// A command that was issued, and not completed as far as we know.
struct MaidDriver::Outstanding {
    MaidReference handle;
    std::shared_ptr<const Completion> completion;
    bool refused = false;            // and nobody waits for it any more
    Clock::time_point settled = {};  // since when that is so
};

Handles<MaidDriver::Completion>& MaidDriver::completions()
{
    // Never destroyed: a module that was left behind may complete a command at any time.
    static auto* const all = new Handles<Completion>;
    return *all;
}

void MAIDAPI MaidDriver::complete(MaidObject* /*object*/, std::uint32_t /*command*/,
                                  std::uint32_t /*parameter*/, std::uint32_t /*dataType*/,
                                  MaidData /*data*/, MaidReference reference, MaidResult result)
{
    if (const std::shared_ptr<Completion> completion = completions().find(reference)) {
        completion->result = result;
        completion->heartbeat->note();
        ++completion->count;
    }
}

MaidDriver::MaidDriver(std::shared_ptr<MaidLibrary> library, Timing timing)
    : m_library(std::move(library)), m_timing(timing)
{}

MaidDriver::~MaidDriver()
{
    for (const Outstanding& command : m_outstanding) {
        completions().remove(command.handle);
    }
}

MaidDriver::Guard::~Guard()
{
    if (m_locked) {
        m_driver.m_library->unlock();
    }
}

bool MaidDriver::Guard::rest()
{
    const unsigned time = milliseconds(m_driver.m_timing.poll);
    if (m_driver.m_library->depth() > 1) {
        platform::sleepFor(time);
        return true;
    }
    m_driver.m_library->unlock();
    m_locked = false;
    platform::sleepFor(time);
    m_locked = m_driver.lock();
    return m_locked;
}

bool MaidDriver::lock()
{
    const auto begun = Clock::now();
    while (!m_library->lockFor(kLockSlice)) {
        // Behind a command of the same camera session that hangs for long already nobody waits any
        // longer. A module may expose inside the command itself, and tells nothing meanwhile.
        const Clock::time_point commandBegun{Clock::duration(m_commandBegun)};
        const bool mayWait =
            isWithinExposure() || !patienceIsOver(m_inside > 0 ? commandBegun : begun, patience());
        if (!mayWait) {
            return false;
        }
    }
    return true;
}

bool MaidDriver::tryLock()
{
    if (!m_library->lockFor(0)) {
        return false;
    }
    if (m_library->isWaitedFor()) {
        m_library->unlock();
        return false;
    }
    return true;
}

MaidResult MaidDriver::enterModule(MaidObject* object, const MaidCommand& command,
                                   MaidCompletionProcedure completion, MaidReference reference)
{
    const Counted inside(m_inside);
    return m_library->entryPoint()(object, command.command, command.parameter, command.dataType,
                                   command.data, completion, reference);
}

MaidResult MaidDriver::call(const std::shared_ptr<MaidObject>& object, const MaidCommand& command)
{
    const Guard guard(*this);
    if (!guard || m_silent) {
        return kMaidNoAnswer;
    }
    m_commandBegun = Clock::now().time_since_epoch().count();
    return enterModule(object.get(), command, nullptr, nullptr);
}

MaidResult MaidDriver::execute(const MaidObjectPtr& ref, const MaidCommand& command)
{
    Guard guard(*this);
    const MaidObjectPtr target = keep(ref);
    if (!guard || m_silent || !target || target->closed) {
        return kMaidNoAnswer;
    }
    const auto completion = std::make_shared<Completion>();
    completion->heartbeat = m_heartbeat;
    completion->object = target->object;
    completion->keep = command.keep;

    std::optional<MaidLibrary::Exposure> exposure;
    if (isCapture(command)) {
        m_library->exposureHeartbeat().noteSilently();
        exposure.emplace(*m_library);
    }
    m_commandBegun = Clock::now().time_since_epoch().count();
    MaidReference handle = remember(completion);
    const MaidResult result = enterModule(target->object.get(), command, complete, handle);
    const bool answered =
        (isStart(command) && !isGood(result)) || await(guard, target, *completion, result);
    settle(handle, !isGood(result));
    return answered ? result : kMaidNoAnswer;
}

// Keeps what the module may write to until the command is settled, or the session over.
MaidReference MaidDriver::remember(const std::shared_ptr<Completion>& completion)
{
    const std::lock_guard<std::mutex> guard(m_outstandingLock);
    m_outstanding.reserve(m_outstanding.size() + 1);
    MaidReference handle = completions().add(completion);
    m_outstanding.push_back({handle, completion});
    return handle;
}

// Nobody waits for the command any more. What is completed is forgotten, and what was refused so
// long ago that any other command would be given up: no module writes to that any more, and one
// that refuses for ever would fill the memory.
void MaidDriver::settle(MaidReference handle, bool refused)
{
    const auto now = Clock::now();
    const std::lock_guard<std::mutex> guard(m_outstandingLock);
    const auto isOver = [&](Outstanding& command) {
        if (command.handle == handle) {
            command.refused = refused;
            command.settled = now;
        }
        const bool forgotten = command.refused && now - command.settled > m_timing.running;
        const bool waits = command.settled == Clock::time_point();
        if (forgotten || (!waits && command.completion->count > 0)) {
            completions().remove(command.handle);
            return true;
        }
        return false;
    };
    m_outstanding.erase(std::remove_if(m_outstanding.begin(), m_outstanding.end(), isOver),
                        m_outstanding.end());
}

MaidResult MaidDriver::work(const MaidObjectPtr& ref)
{
    const Guard guard(*this);
    const MaidObjectPtr target = keep(ref);
    if (!guard || m_silent || !target || target->closed) {
        return kMaidNoAnswer;
    }
    return enterModule(target->object.get(), MaidCommand{kMaidCommandAsync}, nullptr, nullptr);
}

// Polls until the completion has come. Returns false when the wait was given up. Between two polls
// another thread may have the completion delivered, or the object closed.
bool MaidDriver::await(Guard& guard, const MaidObjectPtr& ref, const Completion& completion,
                       MaidResult result)
{
    const MaidLibrary::Wait wait(*m_library);
    const auto begun = Clock::now();
    while (completion.count == 0) {
        if (ref->closed) {
            return false;
        }
        const bool works = isGood(
            enterModule(ref->object.get(), MaidCommand{kMaidCommandAsync}, nullptr, nullptr));
        if (works) {
            noteAnswer();
        }
        const bool regained = guard.rest();
        // A process that ends takes the module away from under whoever is left behind in it.
        const bool mayStay = !PyCallback::interpreterIsEnding() || !isExposureTimeOver();
        if (!works) {
            return true;
        }
        if (!isGood(result) && Clock::now() - begun > m_timing.refused) {
            return true;
        }
        if (completion.count == 0 && (!regained || !mayStay || patienceIsOver(begun, patience()))) {
            m_silent = m_phase != Phase::running;
            return false;
        }
    }
    return true;
}

// In an exposure an answer is as good as a completion. It keeps the process from ending no longer
// than the exposure may take.
void MaidDriver::noteAnswer()
{
    if (isWithinExposure()) {
        m_library->exposureHeartbeat().note();
    } else if (m_library->isExposing()) {
        m_library->exposureHeartbeat().noteSilently();
    }
}

bool MaidDriver::patienceIsOver(Clock::time_point begun, std::chrono::milliseconds patience) const
{
    const Clock::time_point phaseBegun{Clock::duration(m_phaseBegun)};
    return Clock::now() - std::max({begun, phaseBegun, lastSign()}) > patience;
}

MaidDriver::Clock::time_point MaidDriver::lastSign() const
{
    return std::max(m_heartbeat->last(), m_library->exposureHeartbeat().last());
}

std::chrono::milliseconds MaidDriver::patience() const
{
    switch (m_phase) {
        case Phase::stopping:
            return m_timing.stopping;
        case Phase::closing:
            return m_timing.closing;
        default:
            return m_library->isHanging() ? m_timing.stopping : m_timing.running;
    }
}

void MaidDriver::enter(Phase phase)
{
    const Clock::rep now = Clock::now().time_since_epoch().count();
    if (phase != Phase::running && m_stopBegun == 0) {
        m_stopBegun = now;
    }
    m_phaseBegun = now;
    m_silent = false;
    m_phase = phase;
}

void MaidDriver::noteLeftBehind()
{
    m_silent = true;
    m_library->noteHanging();
}

bool MaidDriver::isExposureTimeOver() const
{
    const Clock::time_point stopBegun{Clock::duration(m_stopBegun)};
    return m_stopBegun != 0 && Clock::now() - stopBegun > m_timing.exposure;
}

bool MaidDriver::isWithinExposure() const
{
    return m_library->isExposing() && !isExposureTimeOver();
}

bool MaidDriver::hangs() const
{
    if (m_library->isExposing()) {
        return isExposureTimeOver();
    }
    const Clock::time_point stopBegun{Clock::duration(m_stopBegun)};
    return m_inside > 0 && Clock::now() - std::max(stopBegun, lastSign()) > m_timing.hanging;
}

}  // namespace nikon
