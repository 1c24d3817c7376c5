#include "nikon/MaidDriver.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <string>

#include "DebugLog.h"
#include "SignsOfLife.h"

namespace nikon {

namespace {

constexpr unsigned kLockSlice = 50;  // milliseconds between two looks whether to go on waiting

bool isGood(MaidResult result)
{
    return result == kMaidOk || result == kMaidPending;
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

void LifeSigns::note()
{
    m_last = Clock::now().time_since_epoch().count();
    giveSignOfLife();
}

// What the module writes to, and what keeps it alive.
struct MaidDriver::Completion {
    std::atomic<std::uint32_t> count{0};
    std::atomic<MaidResult> result{kMaidOk};
    std::shared_ptr<LifeSigns> signs;
    std::shared_ptr<MaidObject> object;
    std::shared_ptr<void> keep;
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
        completion->signs->note();
        ++completion->count;
    }
}

MaidDriver::MaidDriver(std::shared_ptr<MaidLibrary> library, Timing timing)
    : m_library(std::move(library)), m_timing(timing)
{}

MaidDriver::~MaidDriver()
{
    for (MaidReference handle : m_outstanding) {
        completions().remove(handle);
    }
}

MaidDriver::Guard::~Guard()
{
    if (m_locked) {
        m_driver.m_library->lock().unlock();
    }
}

bool MaidDriver::lock()
{
    const auto begun = Clock::now();
    while (!m_library->lock().lockFor(kLockSlice)) {
        // Behind a command of this session that hangs for long already nobody waits any longer.
        const Clock::time_point commandBegun{Clock::duration(m_commandBegun)};
        if (patienceIsOver(m_inside > 0 ? commandBegun : begun, patience())) {
            return false;
        }
    }
    return true;
}

MaidResult MaidDriver::enterModule(MaidObject* object, const MaidCommand& command,
                                   MaidCompletionProcedure completion, MaidReference reference)
{
    ++m_inside;
    const MaidResult result =
        m_library->entryPoint()(object, command.command, command.parameter, command.dataType,
                                command.data, completion, reference);
    --m_inside;
    return result;
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
    const Guard guard(*this);
    const MaidObjectPtr target = keep(ref);
    if (!guard || m_silent || !target || target->closed) {
        return kMaidNoAnswer;
    }
    const auto completion = std::make_shared<Completion>();
    completion->signs = m_signs;
    completion->object = target->object;
    completion->keep = command.keep;

    m_commandBegun = Clock::now().time_since_epoch().count();
    MaidReference handle = completions().add(completion);
    const MaidResult result = enterModule(target->object.get(), command, complete, handle);
    const bool answered = await(target, *completion, result);
    if (completion->count > 0) {
        completions().remove(handle);
    } else {
        m_outstanding.push_back(handle);
    }
    return answered ? result : kMaidNoAnswer;
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

// Polls until the completion has come. Returns false when the wait was given up.
bool MaidDriver::await(const MaidObjectPtr& ref, const Completion& completion, MaidResult result)
{
    const auto begun = Clock::now();
    while (completion.count == 0) {
        if (ref->closed) {
            return false;
        }
        const bool works = isGood(
            enterModule(ref->object.get(), MaidCommand{kMaidCommandAsync}, nullptr, nullptr));
        platform::sleepFor(milliseconds(m_timing.poll));
        if (!works) {
            return true;
        }
        if (!isGood(result) && Clock::now() - begun > m_timing.refused) {
            return true;
        }
        if (completion.count == 0 && patienceIsOver(begun, patience())) {
            m_silent = m_phase != Phase::running;
            return false;
        }
    }
    return true;
}

bool MaidDriver::patienceIsOver(Clock::time_point begun, std::chrono::milliseconds patience) const
{
    const Clock::time_point phaseBegun{Clock::duration(m_phaseBegun)};
    return Clock::now() - std::max({begun, phaseBegun, m_signs->last()}) > patience;
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

bool MaidDriver::hangs() const
{
    const Clock::time_point stopBegun{Clock::duration(m_stopBegun)};
    return m_inside > 0 && Clock::now() - std::max(stopBegun, m_signs->last()) > m_timing.hanging;
}

}  // namespace nikon
