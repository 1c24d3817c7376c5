// Threads that nobody waits for.
#include "Apart.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

TEST(Apart, WorkRunsOnAThreadOfItsOwn)
{
    std::atomic<std::thread::id> worker{std::this_thread::get_id()};
    runApart([&] { worker = std::this_thread::get_id(); });
    EXPECT_TRUE(waitFor([&] { return worker != std::this_thread::get_id(); }));
}

TEST(Apart, ThousandsThatEndAtOnceEachDoTheirOwnWorkOnce)
{
    constexpr unsigned kThreads = 2000;
    std::vector<std::atomic<unsigned>> done(kThreads);
    std::atomic<unsigned> all{0};
    for (auto& count : done) {
        runApart([&] {
            ++count;
            ++all;
        });
    }
    EXPECT_TRUE(waitFor([&] { return all == kThreads; }));
    EXPECT_TRUE(
        std::all_of(done.begin(), done.end(), [](const auto& count) { return count == 1; }));
}

}  // namespace
