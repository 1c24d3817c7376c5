// What a virtual camera's library knows and does whatever the maker, behind one lock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/CallLog.h"
#include "common/Platform.h"
#include "common/Rules.h"
#include "common/Settings.h"

namespace steering {

using Lock = std::unique_lock<std::mutex>;

// What settings lines without a camera set on every maker's cameras; the defaults are the
// factory's.
struct SharedOptions {
    std::int64_t lagMs = 5;         // shutter.lag_ms
    double exposureScale = 0;       // shutter.scale
    std::int64_t width = 640;       // picture.width
    std::int64_t height = 480;      // picture.height
    std::int64_t jpegSize = 0;      // picture.size, 0: as it comes
    std::int64_t rawSize = 0;       // picture.raw_size, 0: as it comes
    std::int64_t keptFiles = 64;    // picture.keep
    std::int64_t clock = 0;         // picture.clock, seconds since 1970; 0: the real time
    double light = 10;              // scene.light
    std::int64_t logLines = 10000;  // log.lines

    void addTo(Settings& settings);

    // The time that pictures carry, in seconds since 1970.
    std::int64_t pictureTime() const;
};

// All members are guarded by `mutex`, and all functions are called with it held. `changed` is
// notified after every change that a test or a call may wait for. Nothing of the application's is
// called with the lock held.
struct World {
    World() = default;
    virtual ~World() = default;
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    std::mutex mutex;
    std::condition_variable changed;

    Settings settings;
    EventTable eventRules;
    CallLog log;
    std::string lastError;
    std::string readConfiguration;  // the text file that was read last

    unsigned hangEpoch = 0;                   // counts releases of hanging calls
    int underWay = 0;                         // calls that have not returned
    std::list<std::string> hanging;           // functions
    std::map<std::uint32_t, int> deliveries;  // of events, by code

    // Notes why something is refused. Answers 0.
    int refuse(const std::string& reason);

    // Answers 1 when there is no problem, refuses otherwise.
    int answer(const std::string& problem) { return problem.empty() ? 1 : refuse(problem); }

    // How many events of this code were delivered; of all without one.
    int eventCount(std::optional<std::uint32_t> code) const;

    // Stops a call, with the lock given up, until hanging calls are released or `isOver` is true.
    void hang(Lock& lock, const std::string& function, const std::function<bool()>& isOver);

    // Whether a call of the function ("*": any) hangs.
    bool isHanging(const std::string& function) const;

    // Answers how many calls there were to release.
    int releaseHangs();

    // A whole settings text. Answers 0, or the number of the first bad line.
    int configure(const std::string& text);

    // All settings as text.
    std::string describeSettings() const;

    // Opens the log file, and reads the text file that the variable `name` of the environment
    // names, if they are others than before.
    void readEnvironment(const char* name);

    // Factory state of what is here, the settings' values excepted.
    void resetShared();

    // Frees the memory of what is here and closes the log file.
    void forgetShared();

    // The rest is the maker's.

    // How many numbers were given out.
    virtual int cameraCount() const = 0;
    virtual bool hasCamera(int number) const = 0;

    // A new camera as the factory makes them, plugged in.
    virtual void addFactoryCamera() = 0;

    // A camera's own settings, a "key = value" line each.
    virtual std::string describeCamera(int number) const = 0;

    // One setting that is not in `settings`, or a rule. There may be no camera of this number.
    // Returns why not, empty when it is done.
    virtual std::string configureOwn(const std::string& key, const std::string& value,
                                     int camera) = 0;

    // Does what follows from the values of `settings`.
    virtual void applyOptions() = 0;

    virtual bool isIdle() const = 0;

    // Whether threads of the library's own may be running.
    virtual bool hasThreads() const = 0;

    // For a library that works in the application's calls alone: does what is due now, and says
    // when more is due.
    virtual void catchUp() {}
    virtual Clock::time_point nextDue() const { return Clock::time_point::max(); }

    // Ends the library's threads and frees what is left. Takes the lock itself.
    virtual void unload() = 0;

private:
    std::string configureLine(const std::string& line, int& camera);
};

// Waits, with the lock given up, until `condition` is true, which is asked with the lock held.
// Answers 1 when it came true, 0 when time ran out. Takes the lock itself.
int waitFor(World& world, int timeoutMs, const std::function<bool()>& condition);

// Unloads a world when the library is unloaded. The world itself is never destroyed: at the end of
// the process other threads may still be in a call.
class Unloader
{
public:
    explicit Unloader(World& world) : m_world(world), m_process(processNumber()) {}
    ~Unloader()
    {
        // A forked process has a copy of the world, and none of its threads to wait for.
        const bool isCopy = m_process != processNumber();
        if (!isCopy && (kJoinsWhileUnloading || isAtRest())) {
            m_world.unload();
        }
    }
    Unloader(const Unloader&) = delete;
    Unloader& operator=(const Unloader&) = delete;

private:
    // Whether nothing waits or could be waited for.
    bool isAtRest() const
    {
        const Lock lock(m_world.mutex, std::try_to_lock);
        return lock && !m_world.hasThreads();
    }

    World& m_world;
    unsigned long m_process;
};

// A maker's world, with its lock held for the life of this object.
template <typename MakersWorld>
class Locked
{
public:
    explicit Locked(MakersWorld& world) : m_world(&world), m_lock(world.mutex) {}

    MakersWorld& operator*() const { return *m_world; }
    MakersWorld* operator->() const { return m_world; }

    Lock& lock() { return m_lock; }

private:
    MakersWorld* m_world;
    Lock m_lock;
};

// The one of this number, null when there is none.
template <typename Thing>
std::shared_ptr<Thing> atNumber(const std::vector<std::shared_ptr<Thing>>& things, int number)
{
    const auto index = static_cast<std::size_t>(number);
    return number < 0 || index >= things.size() ? nullptr : things[index];
}

// Empties a container and gives its memory back, which clear() keeps.
template <typename Container>
void forget(Container& container)
{
    Container empty;
    std::swap(container, empty);
}

}  // namespace steering
