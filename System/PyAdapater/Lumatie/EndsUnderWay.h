// Which threads are still ending a session, so that the end of the process can wait for them.
#pragma once

#include <mutex>
#include <thread>
#include <vector>

// Thread-safe; no call waits. Objects of it are never destroyed: a thread that was left behind may
// come back at any time.
class EndsUnderWay
{
public:
    // `thread` has an end to do from now on. A thread may have several.
    void begin(std::thread::id thread);

    // `thread` has done one of its ends.
    void finish(std::thread::id thread);

    // Whether a thread other than `but` has an end to do.
    bool isAny(std::thread::id but = {}) const;

private:
    mutable std::mutex m_lock;  // guards the field below
    std::vector<std::thread::id> m_threads;
};
