// A worker thread.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace canon {

// Runs `run` on a thread of its own. The owner starts and joins it, once each; the destructor
// does neither.
class Thread
{
public:
    Thread() = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread();

    // The thread's work.
    virtual void run() = 0;

    // Starts the thread; returns false when the system has none to give.
    bool start();

    // Waits without limit until the thread has ended. Returns at once when none was started,
    // when it was joined before, and on the thread itself.
    void join();

    // Called from inside `run`: lets go of the thread, which nobody will join, and has it call
    // `farewell` when `run` has returned. `farewell` may destroy this object.
    void endWith(std::function<void()> farewell);

    // Whether `run` is executing now. Any thread.
    bool isAlive() const { return m_alive; }

    // Whether `run` is executing on the thread `id`. Any thread.
    bool runsOn(std::thread::id id) const { return m_id == id; }

private:
    void enter();

    std::thread m_handle;
    std::atomic<std::thread::id> m_id{std::thread::id()};  // set while `run` is executing
    std::atomic<bool> m_alive{false};
    std::function<void()> m_farewell;  // used on the thread itself only
};

}  // namespace canon
