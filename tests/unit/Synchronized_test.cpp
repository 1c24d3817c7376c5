// The mutex with the vocabulary of wait and notify.
#include "canon/Synchronized.h"

#include <atomic>
#include <future>

#include "TestSupport.h"

namespace {

using canon::Synchronized;
using Clock = std::chrono::steady_clock;

// Whether another thread can take it now.
bool isFree(Synchronized& synchronized)
{
    std::atomic<bool> taken{false};
    std::thread other([&] {
        synchronized.lock();
        taken = true;
        synchronized.unlock();
    });
    const bool free = waitFor([&] { return taken.load(); });
    if (!free) {
        synchronized.unlock();  // lets the thread end; the test has failed already
    }
    other.join();
    return free;
}

TEST(Synchronized, IsNotLockedAtFirst)
{
    Synchronized synchronized;
    EXPECT_FALSE(synchronized.isLocked());
}

TEST(Synchronized, SaysThatItIsLockedForEverAfterTheFirstLock)
{
    Synchronized synchronized;
    EXPECT_TRUE(synchronized.lock());
    EXPECT_TRUE(synchronized.isLocked());
    synchronized.unlock();
    EXPECT_TRUE(synchronized.isLocked());
}

TEST(Synchronized, UnlockingWhatWasNeverLockedDoesNothing)
{
    Synchronized synchronized;
    synchronized.unlock();
    synchronized.notify();
    EXPECT_FALSE(synchronized.isLocked());
    EXPECT_TRUE(isFree(synchronized));
}

TEST(Synchronized, TheSameThreadMayLockAgain)
{
    Synchronized synchronized;
    EXPECT_TRUE(synchronized.lock());
    EXPECT_TRUE(synchronized.lock());
    synchronized.unlock();
    synchronized.unlock();
    EXPECT_TRUE(isFree(synchronized));
}

TEST(Synchronized, NotifyingIsReleasing)
{
    Synchronized synchronized;
    synchronized.lock();
    synchronized.notify();
    EXPECT_TRUE(isFree(synchronized));
}

TEST(Synchronized, TheSecondReleaseAfterNotifyingFailsHarmlessly)
{
    Synchronized synchronized;
    synchronized.lock();
    synchronized.notify();
    synchronized.unlock();
    EXPECT_TRUE(isFree(synchronized));
    EXPECT_TRUE(synchronized.lock());
}

TEST(Synchronized, ASecondReleaseDoesNotTakeItFromAnotherThread)
{
    Synchronized synchronized;
    std::promise<void> locked;
    std::promise<void> release;
    int inside = 0;
    std::thread owner([&] {
        synchronized.lock();
        inside = 1;
        locked.set_value();
        release.get_future().wait();
        inside = 2;
        synchronized.unlock();
    });
    locked.get_future().wait();
    synchronized.unlock();
    synchronized.notify();
    release.set_value();
    synchronized.lock();
    EXPECT_EQ(inside, 2);
    synchronized.unlock();
    owner.join();
}

TEST(Synchronized, WaitingTakesAtLeastItsTimeAndEndsLocked)
{
    Synchronized synchronized;
    synchronized.lock();
    const auto begin = Clock::now();
    EXPECT_TRUE(synchronized.wait(20));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(20));
    synchronized.unlock();
    EXPECT_TRUE(isFree(synchronized));
}

TEST(Synchronized, WaitingKeepsOthersOutForTheWholePauseAndThenLetsThemIn)
{
    Synchronized synchronized;
    std::atomic<bool> arriving{false};
    std::atomic<bool> entered{false};
    Clock::time_point entry;
    synchronized.lock();
    const auto begin = Clock::now();
    std::thread other([&] {
        arriving = true;
        synchronized.lock();
        entry = Clock::now();
        entered = true;
        synchronized.unlock();
    });
    EXPECT_TRUE(waitFor([&] { return arriving.load(); }));
    int pauses = 0;
    for (; !entered && pauses < 50; ++pauses) {
        synchronized.wait(20);
    }
    synchronized.unlock();
    other.join();
    EXPECT_LT(pauses, 50);
    EXPECT_GE(entry - begin, std::chrono::milliseconds(20));
}

TEST(Synchronized, WaitingWithoutTheLockTakesIt)
{
    Synchronized synchronized;
    EXPECT_TRUE(synchronized.wait(1));
    EXPECT_TRUE(synchronized.isLocked());
    synchronized.unlock();
    EXPECT_TRUE(isFree(synchronized));
}

TEST(Synchronized, MayBeDestroyedLocked)
{
    Synchronized synchronized;
    EXPECT_TRUE(synchronized.lock());
}

}  // namespace
