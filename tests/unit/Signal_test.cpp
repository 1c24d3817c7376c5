// A signal: set once, waited for by any thread.
#include "platform/Platform.h"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using platform::Signal;

constexpr unsigned kDeadlineMs = 20000;

TEST(Signal, IsWaitedForUntilItIsSet)
{
    Signal signal;
    std::atomic<bool> isSet{false};
    std::thread setter([&] {
        platform::sleepFor(50);
        isSet = true;
        signal.set();
    });
    signal.wait();
    EXPECT_TRUE(isSet);
    setter.join();
}

TEST(Signal, ThatIsNotSetIsWaitedForInVain)
{
    Signal signal;
    EXPECT_FALSE(signal.waitFor(0));
    EXPECT_FALSE(signal.waitFor(20));
}

TEST(Signal, StaysSet)
{
    Signal signal;
    signal.set();
    signal.set();
    signal.wait();
    EXPECT_TRUE(signal.waitFor(0));
    EXPECT_TRUE(signal.waitFor(kDeadlineMs));
}

TEST(Signal, WakesAllWhoWait)
{
    Signal signal;
    std::vector<std::thread> waiters;
    std::atomic<int> woken{0};
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] { woken += signal.waitFor(kDeadlineMs) ? 1 : 0; });
    }
    signal.set();
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(woken, 4);
}

TEST(Signal, MayBeDestroyedByWhoeverHasSeenIt)
{
    for (int i = 0; i < 1000; ++i) {
        auto signal = std::make_unique<Signal>();
        std::thread setter([signal = signal.get()] { signal->set(); });
        signal->wait();
        signal = nullptr;
        setter.join();
    }
}

}  // namespace
