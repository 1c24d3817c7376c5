// How commands reach a driver module, and how their completion is awaited.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "Maid.h"
#include "nikon/Handles.h"
#include "nikon/MaidObjectRef.h"
#include "platform/Platform.h"

namespace nikon {

// How long things take. Tests have less patience.
struct Timing {
    std::chrono::milliseconds poll{10};          // between two looks for a completion
    std::chrono::milliseconds pause{1000};       // between two cycles of the monitor
    std::chrono::milliseconds running{60'000};   // without a sign of life, then a wait is given up
    std::chrono::milliseconds stopping{5'000};   // the same after the stop was requested
    std::chrono::milliseconds closing{2'000};    // the same while the objects are closed
    std::chrono::milliseconds refused{500};      // for a command that was refused outright
    std::chrono::milliseconds exposure{35'000};  // after the stop, for an exposure and its picture
    std::chrono::milliseconds hanging{8'500};    // then a session that ends is left behind
};

// When a module was last heard of. Thread-safe.
class ModuleHeartbeat
{
public:
    using Clock = std::chrono::steady_clock;

    // A command was completed, or the module called one of our procedures: a sign of life for the
    // end of the process, too.
    void note();

    // The module has answered, which only the waits of its camera session need to know.
    void noteSilently() { m_last = Clock::now().time_since_epoch().count(); }

    Clock::time_point last() const { return Clock::time_point(Clock::duration(m_last)); }

private:
    std::atomic<Clock::rep> m_last{Clock::now().time_since_epoch().count()};
};

// Counts as one in `count` as long as it lives.
class Counted
{
public:
    explicit Counted(std::atomic<unsigned>& count) : m_count(count) { ++m_count; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --m_count; }

private:
    std::atomic<unsigned>& m_count;
};

// A loaded driver module: its entry point, and the lock that lets one thread in at a time. All
// sessions with one module share it; the last one to let go unloads the module.
class MaidLibrary
{
public:
    // Loads the module in the file `path`. Null, with the reason in the debug log, when the file
    // is no library or has no entry point.
    static std::shared_ptr<MaidLibrary> load(const char* path);

    // A module that is part of the program.
    explicit MaidLibrary(MaidEntryPoint entry) : m_entryPoint(entry) {}

    MaidEntryPoint entryPoint() const { return m_entryPoint; }

    // Lets one thread in. Fair and recursive; held around each command, given up between two polls
    // of a wait that nothing encloses, never held across a call into Python.
    bool lockFor(unsigned milliseconds);
    void unlock();

    // How often the calling thread, which holds the lock, holds it.
    unsigned depth() const { return m_depth; }

    // Says, as long as it lives, that its thread waits for a completion.
    class Wait : Counted
    {
    public:
        explicit Wait(MaidLibrary& library) : Counted(library.m_waits) {}
    };

    bool isWaitedFor() const { return m_waits > 0; }

    // Says, as long as it lives, that a capture is under way. The module may complete no command
    // then: it is alive as long as it answers.
    class Exposure : Counted
    {
    public:
        explicit Exposure(MaidLibrary& library) : Counted(library.m_exposures) {}
    };

    bool isExposing() const { return m_exposures > 0; }

    // When the module answered last in an exposure.
    ModuleHeartbeat& exposureHeartbeat() { return m_exposureHeartbeat; }

    // A session was left behind in it: others need not wait long for the lock. It has come back.
    void noteHanging() { ++m_hanging; }
    void noteBack() { --m_hanging; }
    bool isHanging() const { return m_hanging > 0; }

private:
    MaidLibrary(std::unique_ptr<platform::Library> library, MaidEntryPoint entry)
        : m_library(std::move(library)), m_entryPoint(entry)
    {}

    std::unique_ptr<platform::Library> m_library;
    MaidEntryPoint m_entryPoint;
    platform::Mutex m_lock;
    unsigned m_depth = 0;  // guarded by m_lock
    std::atomic<unsigned> m_waits{0};
    std::atomic<unsigned> m_exposures{0};
    ModuleHeartbeat m_exposureHeartbeat;
    std::atomic<unsigned> m_hanging{0};  // sessions that were left behind
};

// A command but for the object that it is for. `keep` owns what `data` points to: a module may
// still use it after the wait for the completion was given up.
struct MaidCommand {
    std::uint32_t command = 0;
    std::uint32_t parameter = 0;
    std::uint32_t dataType = kMaidDataTypeNull;
    MaidData data = 0;
    std::shared_ptr<void> keep = nullptr;
};

// The data argument of a command that takes an address.
template <typename Record>
MaidData dataOf(const std::shared_ptr<Record>& record)
{
    return reinterpret_cast<MaidData>(record.get());
}

// What `execute` returns instead of a result of the module's when there is none: the wait was
// given up, the object was closed meanwhile, or the module does not answer any more.
constexpr MaidResult kMaidNoAnswer = -0x7FFFFFFF;

// The commands of one session. Thread-safe; the session's procedures may come back into it from
// inside a command.
class MaidDriver
{
public:
    using Clock = ModuleHeartbeat::Clock;

    // The session's states, in their order. From `stopping` on the first wait that is given up
    // makes all others fail at once; `closing` gives the module a last chance.
    enum class Phase { running, stopping, closing };

    explicit MaidDriver(std::shared_ptr<MaidLibrary> library, Timing timing = {});
    MaidDriver(const MaidDriver&) = delete;
    MaidDriver& operator=(const MaidDriver&) = delete;
    ~MaidDriver();

    // Holds the module's lock for a scope; everything that reads or changes the object tree does.
    // False when the lock was not to be had because somebody's command hangs.
    class Guard
    {
    public:
        explicit Guard(MaidDriver& driver) : m_driver(driver), m_locked(driver.lock()) {}

        // Waits for nobody: false, too, when another thread is inside or awaits a completion.
        Guard(MaidDriver& driver, std::try_to_lock_t /*how*/)
            : m_driver(driver), m_locked(driver.tryLock())
        {}
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;
        ~Guard();
        explicit operator bool() const { return m_locked; }

        // Sleeps between two polls. Meanwhile the lock is free, unless another guard of the thread
        // encloses this one. False when the lock was not to be had again; it is not held then.
        bool rest();

    private:
        MaidDriver& m_driver;
        bool m_locked;
    };

    // Issues a command without a completion procedure; the result is its outcome. `object` is
    // null when the Module object is opened.
    MaidResult call(const std::shared_ptr<MaidObject>& object, const MaidCommand& command);

    // Issues a command and waits until it is completed, letting the module work meanwhile; for a
    // capture without limit, and not at all for the start of something that is refused. The
    // wait also ends when the module refuses to work. Other threads may use the module between two
    // polls, if the caller holds no Guard: they may close the object. Returns the immediate result,
    // 0 or 1 when the command was accepted, whatever the completion says; or kMaidNoAnswer.
    MaidResult execute(const MaidObjectPtr& ref, const MaidCommand& command);

    // Lets the module run pending work once.
    MaidResult work(const MaidObjectPtr& ref);

    void enter(Phase phase);
    Phase phase() const { return m_phase; }

    // Whether the module has not answered since the session began to stop.
    bool isSilent() const { return m_silent; }

    // Whether a thread has been inside the module for so long, without a sign of life since the
    // stop was requested, that nobody should wait for it any more. In an exposure no silence
    // counts, but the time since the stop.
    bool hangs() const;

    // Whether the time is over that the stop leaves for an exposure and its picture.
    bool isExposureTimeOver() const;

    // The session is left behind: no command is issued any more. It was collected after all.
    void noteLeftBehind();
    void noteBack() { m_library->noteBack(); }

    const std::shared_ptr<ModuleHeartbeat>& heartbeat() const { return m_heartbeat; }
    const Timing& timing() const { return m_timing; }

private:
    struct Completion;
    struct Outstanding;
    static Handles<Completion>& completions();
    static void MAIDAPI complete(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                                 std::uint32_t dataType, MaidData data, MaidReference reference,
                                 MaidResult result);

    bool lock();
    bool tryLock();
    MaidResult enterModule(MaidObject* object, const MaidCommand& command,
                           MaidCompletionProcedure completion, MaidReference reference);
    bool await(Guard& guard, const MaidObjectPtr& ref, const Completion& completion,
               MaidResult result);
    MaidReference remember(const std::shared_ptr<Completion>& completion);
    void settle(MaidReference handle, bool refused);
    void noteAnswer();
    bool isWithinExposure() const;
    bool patienceIsOver(Clock::time_point begun, std::chrono::milliseconds patience) const;
    std::chrono::milliseconds patience() const;
    Clock::time_point lastSign() const;

    const std::shared_ptr<MaidLibrary> m_library;
    const Timing m_timing;
    const std::shared_ptr<ModuleHeartbeat> m_heartbeat = std::make_shared<ModuleHeartbeat>();
    std::atomic<Phase> m_phase{Phase::running};
    std::atomic<Clock::rep> m_phaseBegun{Clock::now().time_since_epoch().count()};
    std::atomic<Clock::rep> m_stopBegun{0};
    std::atomic<Clock::rep> m_commandBegun{0};
    std::atomic<bool> m_silent{false};
    std::atomic<unsigned> m_inside{0};  // calls of the entry point under way

    std::mutex m_outstandingLock;  // guards the field below
    std::vector<Outstanding> m_outstanding;
};

}  // namespace nikon
