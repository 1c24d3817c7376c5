// Large jobs, done by as many processors as there are.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace scene {

// Calls `work` with each number below `count`, on this thread and on others. Returns when all calls
// have returned. What `work` throws on another thread ends the process.
template <typename Work>
void doAll(std::size_t count, Work work)
{
    constexpr std::size_t kMostThreads = 4;
    std::atomic<std::size_t> next{0};
    const auto run = [&] {
        for (std::size_t piece = next++; piece < count; piece = next++) {
            work(piece);
        }
    };
    const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
    const std::size_t threads = std::min({count, processors, kMostThreads});
    std::vector<std::thread> helpers;
    try {
        while (helpers.size() + 1 < threads) {
            helpers.emplace_back(run);
        }
    } catch (const std::system_error&) {
        // The system has no thread left: those that there are do it all.
    }
    run();
    for (std::thread& helper : helpers) {
        helper.join();
    }
}

}  // namespace scene
