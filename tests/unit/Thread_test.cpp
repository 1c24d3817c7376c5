// The worker thread.
#include "canon/Thread.h"

#include <atomic>
#include <future>
#include <memory>

#include "TestSupport.h"

namespace {

// Runs until it is let go.
class GatedThread : public canon::Thread
{
public:
    void run() override
    {
        m_entered.set_value();
        m_open.wait();
        if (m_atEnd) {
            m_atEnd();
        }
    }

    void awaitEntry() { m_entered.get_future().wait(); }
    void letGo() { m_gate.set_value(); }

    std::function<void()> m_atEnd;

private:
    std::promise<void> m_entered;
    std::promise<void> m_gate;
    std::shared_future<void> m_open = m_gate.get_future().share();
};

TEST(Thread, IsAliveWhileItRuns)
{
    GatedThread thread;
    EXPECT_FALSE(thread.isAlive());
    ASSERT_TRUE(thread.start());
    thread.awaitEntry();
    EXPECT_TRUE(thread.isAlive());
    thread.letGo();
    thread.join();
    EXPECT_FALSE(thread.isAlive());
}

TEST(Thread, KnowsTheThreadThatItRunsOn)
{
    GatedThread thread;
    EXPECT_FALSE(thread.runsOn(std::this_thread::get_id()));
    std::atomic<bool> runsOnItself{false};
    std::thread::id id;
    thread.m_atEnd = [&] {
        id = std::this_thread::get_id();
        runsOnItself = thread.runsOn(id);
    };
    thread.start();
    thread.letGo();
    thread.join();
    EXPECT_TRUE(runsOnItself);
    EXPECT_FALSE(thread.runsOn(std::this_thread::get_id()));
    EXPECT_FALSE(thread.runsOn(id));
}

TEST(Thread, IsJoinedAtOnceWhenItWasNeverStarted)
{
    GatedThread thread;
    thread.join();
    thread.letGo();
}

TEST(Thread, IsJoinedAtOnceTheSecondTime)
{
    GatedThread thread;
    thread.start();
    thread.letGo();
    thread.join();
    thread.join();
    EXPECT_FALSE(thread.isAlive());
}

TEST(Thread, DoesNotWaitForItself)
{
    GatedThread thread;
    thread.m_atEnd = [&] { thread.join(); };
    thread.start();
    thread.letGo();
    thread.join();
    EXPECT_FALSE(thread.isAlive());
}

TEST(Thread, SaysItsFarewellAfterItsRunAndKeepsWhatItWasGiven)
{
    auto thread = std::make_shared<GatedThread>();
    const std::weak_ptr<GatedThread> watched = thread;
    std::promise<bool> aliveAtFarewell;
    thread->start(thread);
    ASSERT_TRUE(thread->endWith([&] { aliveAtFarewell.set_value(watched.lock()->isAlive()); }));
    thread->letGo();
    thread = nullptr;
    EXPECT_FALSE(aliveAtFarewell.get_future().get());
    EXPECT_TRUE(waitFor([&] { return watched.expired(); }));
}

TEST(Thread, TakesNoFarewellWhenItWasNeverStarted)
{
    GatedThread thread;
    EXPECT_FALSE(thread.endWith([] { FAIL() << "nobody says it"; }));
    thread.letGo();
}

TEST(Thread, IsJoinedWhenItHasLeftForGood)
{
    auto thread = std::make_shared<GatedThread>();
    const std::weak_ptr<GatedThread> watched = thread;
    std::promise<void> joined;
    thread->m_atEnd = [&, leaving = thread.get()] {
        leaving->leaveForGood();
        joined.get_future().wait();
    };
    thread->start(thread);
    thread->letGo();
    thread->join();
    EXPECT_FALSE(thread->isAlive());
    joined.set_value();
    thread = nullptr;
    EXPECT_TRUE(waitFor([&] { return watched.expired(); }));
}

}  // namespace
