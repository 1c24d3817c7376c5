// Threads that nobody waits for.
#pragma once

#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

// Runs `work` on a thread of its own, which nobody waits for, or here when there is none to be had.
template <typename Work>
void runApart(const Work& work)
{
    try {
        // The work waits until its thread was detached. The C runtime of MinGW takes back twice
        // what belongs to a thread that is detached between its last step and its end; the threads
        // that are started then share it.
        const auto detaching = std::make_shared<std::mutex>();
        const std::lock_guard<std::mutex> guard(*detaching);
        std::thread([work, detaching] {
            detaching->lock();
            detaching->unlock();
            work();
        }).detach();
        return;
    } catch (const std::system_error&) {
    } catch (const std::bad_alloc&) {
    }
    work();
}
