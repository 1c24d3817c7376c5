// What a virtual camera's library knows whatever the maker, behind one lock.
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
#include "common/Picture.h"
#include "common/PictureFolder.h"
#include "common/Rules.h"
#include "common/Settings.h"
#include "scene/Exposure.h"

namespace virtualcamera {

using Lock = std::unique_lock<std::mutex>;

// The pixels of a camera of our time: 45 million.
constexpr std::int64_t kFullWidth = 8256;
constexpr std::int64_t kFullHeight = 5504;

// What settings lines without a camera set on every maker's cameras; the defaults are the
// factory's.
struct SharedOptions : scene::ShutterOptions {
    std::int64_t width = 640;       // picture.width
    std::int64_t height = 480;      // picture.height
    std::int64_t fullSize = 0;      // picture.full_size: 1 goes before width and height
    std::int64_t jpegSize = 0;      // picture.size, 0: as it comes
    std::int64_t rawSize = 0;       // picture.raw_size, 0: as it comes
    std::int64_t keptFiles = 64;    // picture.keep
    PictureFolder folder;           // picture.folder
    std::int64_t clock = 0;         // picture.clock, seconds since 1970; 0: the real time
    double light = 10;              // scene.light
    double transferRate = 0;        // transfer.rate in MB/s; 0: as fast as it goes
    std::int64_t logLines = 10000;  // log.lines

    void addTo(Settings& settings);

    int pictureWidth() const { return static_cast<int>(fullSize != 0 ? kFullWidth : width); }
    int pictureHeight() const { return static_cast<int>(fullSize != 0 ? kFullHeight : height); }

    // The time that pictures carry, in seconds since 1970.
    std::int64_t pictureTime() const;
};

// Which pictures' bytes are kept for comparing: asked of one after the other, the newest first.
// Large ones fill the memory before they are many, so there is a limit to all of them together.
class Keeping
{
public:
    explicit Keeping(const SharedOptions& options) : m_left(options.keptFiles) {}

    bool keepsNext(std::int64_t size)
    {
        constexpr std::int64_t kMostBytes = std::int64_t{256} * 1024 * 1024;
        const bool isFirst = m_bytes == 0;
        m_bytes += size;
        return m_left-- > 0 && (isFirst || m_bytes <= kMostBytes);
    }

private:
    std::int64_t m_left;
    std::int64_t m_bytes = 0;
};

// All members are guarded by `mutex`, and all functions are called with it held. `changed` is
// notified after every change that a test or a call may wait for. Nothing of the application's is
// called with the lock held.
struct World {
    World() = default;
    ~World() = default;
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

    // The same for a number that is no camera's.
    int refuseCamera(int number) { return refuse("no such camera: " + std::to_string(number)); }

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

    // Factory state of what is here, the settings' values excepted.
    void resetShared();

    // Frees the memory of what is here and closes the log file.
    void forgetShared();
};

// Something that a mutex guards, which is held for the life of this object.
template <typename Guarded>
class Locked
{
public:
    Locked(Guarded& guarded, std::mutex& mutex) : m_guarded(&guarded), m_lock(mutex) {}

    Guarded& operator*() const { return *m_guarded; }
    Guarded* operator->() const { return m_guarded; }

    Lock& lock() { return m_lock; }

private:
    Guarded* m_guarded;
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

}  // namespace virtualcamera
