// A worker thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "platform/Platform.h"

namespace canon {

// Runs `run` on a thread of its own, in an apartment of COM where there are such. The owner starts
// it, and joins it or has it end by itself, once each; the destructor does neither.
class Thread
{
public:
    Thread() = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread();

    // The thread's work.
    virtual void run() = 0;

    // Starts the thread, which keeps `keep` alive until it has ended; returns false when the system
    // has none to give.
    bool start(std::shared_ptr<void> keep = nullptr);

    // Waits without limit until the thread has ended, or will do nothing any more (see
    // `leaveForGood`). Returns at once when none was started, when it was joined before, and on the
    // thread itself.
    void join();

    // Has the thread call `farewell` when `run` has returned: nobody will join it. Before anybody
    // tells `run` to return. Returns false, and does nothing, when there is no thread. Any thread.
    bool endWith(std::function<void()> farewell);

    // Has the thread let go of `last` when it has done everything else and left its apartment. On
    // the thread itself.
    void keepToTheEnd(std::shared_ptr<void> last) { m_last = std::move(last); }

    // Does what would follow `run`: the calling thread is inside `run` and never comes back there.
    void leaveForGood();

    // Whether `run` is executing now. Any thread.
    bool isAlive() const { return m_alive; }

    // Whether `run` is executing on the thread `id`. Any thread.
    bool runsOn(std::thread::id id) const { return m_id == id; }

private:
    void enter();
    void sayFarewell();

    std::thread m_handle;
    std::atomic<std::thread::id> m_id{std::thread::id()};  // set while `run` is executing
    std::atomic<bool> m_alive{false};
    std::function<void()> m_farewell;  // used on the thread itself only, once `run` has returned
    std::shared_ptr<void> m_last;      // the same
    std::atomic<bool> m_forGood{false};
    platform::Signal m_left;  // the last thing that the thread does
};

}  // namespace canon
