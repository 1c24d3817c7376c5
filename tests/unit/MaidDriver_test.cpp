// How commands are issued and awaited, and what keeps a module that misbehaves from doing harm.
#include "nikon/MaidDriver.h"

#include <atomic>
#include <chrono>
#include <future>

#include "FakeMaid.h"
#include "TestSupport.h"
#include "nikon/MaidCommands.h"
#include "nikon/MaidProcedures.h"
#include "nikon/MaidTree.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using nikon::MaidDriver;

namespace {

class MaidDriverTest : public fake::MaidTest
{
protected:
    void SetUp() override { openWith(impatient()); }

    void openWith(const nikon::Timing& timing)
    {
        m_tree = std::make_shared<nikon::MaidTree>(maid.library(), timing);
        ASSERT_TRUE(m_tree->OpenModule());
        ASSERT_TRUE(m_tree->OpenSource());
        m_source = m_tree->source();
        maid.clearCalls();
    }

    void TearDown() override
    {
        maid.clearRules();
        maid.asyncResult = kMaidOk;
        driver().enter(MaidDriver::Phase::closing);
        m_tree->CloseTree();
        MaidTest::TearDown();
    }

    MaidDriver& driver() { return m_tree->driver(); }

    // A read of the liveness number.
    bool read() { return nikon::GetUnsigned(driver(), m_source, kMaidCapLiveness, 0).has_value(); }

    // The same into `number`.
    bool read(const std::shared_ptr<std::uint32_t>& number)
    {
        return nikon::GetCapability(driver(), m_source, kMaidCapLiveness, kMaidDataTypeUnsignedPtr,
                                    nikon::dataOf(number), number);
    }

    // How the next such read is completed.
    void completeAfter(int polls, int times = 1)
    {
        fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
        rule.polls = polls;
        rule.times = times;
        rule.result = kMaidPending;
        maid.rule(rule);
    }

    std::shared_ptr<nikon::MaidTree> m_tree;
    nikon::MaidObjectPtr m_source;
};

// Waiting.

TEST_F(MaidDriverTest, AModuleThatCompletesAtOnceIsNeverPolled)
{
    EXPECT_TRUE(read());
    EXPECT_EQ(maid.polls(), 0);
    EXPECT_EQ(maid.calls(), std::vector<std::string>{"Source CapGet 0x81D7"});
}

TEST_F(MaidDriverTest, AModuleIsPolledUntilItCompletes)
{
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = 5;
    maid.rule(rule);
    EXPECT_TRUE(read());
    EXPECT_EQ(maid.polls(), 5);
}

TEST_F(MaidDriverTest, PollsAre10MillisecondsApart)
{
    EXPECT_EQ(nikon::Timing().poll, 10ms);
    m_tree->CloseTree();
    nikon::Timing timing = impatient();
    timing.poll = nikon::Timing().poll;
    openWith(timing);
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = 5;
    maid.rule(rule);
    const auto begun = Clock::now();
    EXPECT_TRUE(read());
    EXPECT_GE(Clock::now() - begun, 50ms);
}

TEST_F(MaidDriverTest, AFailingCommand0EndsTheWaitAfterOneMoreSleepEvenThoughNoCompletionCame)
{
    m_tree->CloseTree();
    nikon::Timing timing = impatient();
    timing.poll = 30ms;
    openWith(timing);
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = fake::kNever;
    maid.rule(rule);
    maid.asyncResult = -127;
    const auto begun = Clock::now();
    EXPECT_TRUE(read());  // the immediate result decides
    EXPECT_GE(Clock::now() - begun, 30ms);
    EXPECT_EQ(maid.polls(), 1);
}

TEST_F(MaidDriverTest, TheImmediateResultDecidesAndNotTheCompletions)
{
    completeAfter(1);
    EXPECT_FALSE(read());  // pending is no success for a read
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = fake::kNever;
    maid.rule(rule);
    std::thread late([&] {
        EXPECT_TRUE(waitFor([&] { return maid.polls() > 3; }));
        maid.completeAll(-127);
    });
    EXPECT_TRUE(read());
    late.join();
}

TEST_F(MaidDriverTest, ARefusedCommandIsStillCompleted)
{
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.result = -127;
    rule.polls = 3;
    maid.rule(rule);
    EXPECT_FALSE(read());
    EXPECT_EQ(maid.polls(), 3);
}

TEST_F(MaidDriverTest, ARefusedCommandThatIsNotCompletedIsWaitedForOnlyShortly)
{
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.result = -127;
    rule.completes = false;
    maid.rule(rule);
    const auto begun = Clock::now();
    EXPECT_FALSE(read());
    EXPECT_LT(Clock::now() - begun, impatient().running);
}

// Giving up.

TEST_F(MaidDriverTest, AWaitWithoutASignOfLifeIsGivenUpAsFailed)
{
    EXPECT_EQ(nikon::Timing().running, 60s);
    EXPECT_EQ(nikon::Timing().stopping, 5s);
    completeAfter(fake::kNever);
    const auto begun = Clock::now();
    EXPECT_FALSE(read());
    EXPECT_GE(Clock::now() - begun, impatient().running);
    EXPECT_TRUE(read());
    EXPECT_FALSE(driver().isSilent());
}

TEST_F(MaidDriverTest, ASignOfLifeProlongsTheWait)
{
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = fake::kNever;
    maid.rule(rule);
    std::thread module([&] {
        EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
        for (int i = 0; i < 8; ++i) {
            std::this_thread::sleep_for(impatient().running / 4);
            fake::Maid::showProgress(*maid.source, 0, 0);
        }
        maid.completeAll();
    });
    testing::internal::CaptureStdout();
    EXPECT_TRUE(read());
    testing::internal::GetCapturedStdout();
    module.join();
}

TEST_F(MaidDriverTest, AnEventIsASignOfLife)
{
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = fake::kNever;
    maid.rule(rule);
    std::vector<std::thread> threads;
    std::thread module([&] {
        EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
        for (int i = 0; i < 8; ++i) {
            std::this_thread::sleep_for(impatient().running / 4);
            // Each waits for the end of the command.
            threads.emplace_back(
                [&] { fake::Maid::raise(*maid.source, kMaidEventCapChangeValue, 1); });
        }
        maid.completeAll();
    });
    testing::internal::CaptureStdout();
    EXPECT_TRUE(read());
    module.join();
    for (std::thread& thread : threads) {
        thread.join();
    }
    testing::internal::GetCapturedStdout();
}

TEST_F(MaidDriverTest, AStopShortensAWaitThatIsUnderWayAndFailsTheRest)
{
    m_tree->CloseTree();
    nikon::Timing timing = impatient();
    timing.running = 60s;
    openWith(timing);
    completeAfter(fake::kNever);
    std::thread host([&] {
        EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
        driver().enter(MaidDriver::Phase::stopping);
    });
    const auto begun = Clock::now();
    EXPECT_FALSE(read());
    EXPECT_LT(Clock::now() - begun, 30s);
    host.join();
    EXPECT_TRUE(driver().isSilent());
    maid.clearCalls();
    EXPECT_FALSE(read());
    EXPECT_EQ(maid.calls(), std::vector<std::string>{});
    driver().enter(MaidDriver::Phase::closing);
    EXPECT_TRUE(read());
}

TEST_F(MaidDriverTest, ACompletionThatComesAfterItsWaitWasGivenUpFindsNothingFreed)
{
    // The read's number is on the heap: a sanitizer sees it when the module writes too late.
    std::uint32_t* number = nullptr;
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = fake::kNever;
    rule.action = [&](const fake::Call& call) {
        number = reinterpret_cast<std::uint32_t*>(call.data);
    };
    maid.rule(rule);
    EXPECT_FALSE(read());
    *number = 42;
    maid.completeAll();
    EXPECT_TRUE(read());
}

TEST_F(MaidDriverTest, ACompletionAfterTheSessionsEndFindsNobody)
{
    completeAfter(fake::kNever);
    EXPECT_FALSE(read());
    m_tree->CloseTree();
    m_tree.reset();
    m_source.reset();
    maid.completeAll();
    openWith(impatient());
}

TEST_F(MaidDriverTest, WhatACompletedCommandHasUsedIsGivenBack)
{
    auto number = std::make_shared<std::uint32_t>(0);
    const std::weak_ptr<std::uint32_t> kept = number;
    EXPECT_TRUE(read(number));
    number.reset();
    EXPECT_TRUE(kept.expired());
}

TEST_F(MaidDriverTest, WhatACommandThatWasGivenUpUsesIsKeptUntilTheSessionsEnd)
{
    auto number = std::make_shared<std::uint32_t>(0);
    const std::weak_ptr<std::uint32_t> kept = number;
    completeAfter(fake::kNever);
    EXPECT_FALSE(read(number));
    number.reset();
    EXPECT_FALSE(kept.expired());
    m_tree->CloseTree();
    m_tree.reset();
    m_source.reset();
    EXPECT_TRUE(kept.expired());
    maid.completeAll();
    openWith(impatient());
}

TEST_F(MaidDriverTest, WhatARefusedCommandUsesIsForgottenWhenTheModuleHasHadItsTime)
{
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.result = -127;
    rule.completes = false;
    maid.rule(rule);
    auto number = std::make_shared<std::uint32_t>(0);
    const std::weak_ptr<std::uint32_t> kept = number;
    EXPECT_FALSE(read(number));
    number.reset();
    EXPECT_TRUE(read());
    EXPECT_FALSE(kept.expired());
    EXPECT_TRUE(waitFor([&] { return read() && kept.expired(); }));
}

TEST_F(MaidDriverTest, WhatWasCompletedAfterItsWaitWasGivenUpIsForgotten)
{
    auto number = std::make_shared<std::uint32_t>(0);
    const std::weak_ptr<std::uint32_t> kept = number;
    completeAfter(fake::kNever);
    EXPECT_FALSE(read(number));
    number.reset();
    maid.completeAll();
    EXPECT_TRUE(read());
    EXPECT_TRUE(kept.expired());
}

TEST_F(MaidDriverTest, ASecondCompletionIsIgnored)
{
    maid.during(kMaidCommandCapGet, kMaidCapLiveness, [&](const fake::Call& /*call*/) {
        // The outer command completes once more after this.
        EXPECT_TRUE(read());
        maid.completeAll();
    });
    EXPECT_TRUE(read());
    EXPECT_TRUE(read());
}

TEST_F(MaidDriverTest, AnObjectThatIsClosedInsideItsOwnCommandEndsTheWait)
{
    fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
    rule.polls = fake::kNever;
    rule.action = [&](const fake::Call& /*call*/) {
        fake::Maid::raise(maid.module, kMaidEventRemoveChild, 1);
    };
    maid.rule(rule);
    const auto begun = Clock::now();
    EXPECT_FALSE(read());
    EXPECT_LT(Clock::now() - begun, impatient().running);
    EXPECT_TRUE(m_source->closed);
    EXPECT_EQ(m_tree->source(), nullptr);
    maid.completeAll();
}

TEST_F(MaidDriverTest, ACommandOnAClosedObjectIsNotIssued)
{
    ASSERT_TRUE(m_tree->CloseChild(m_tree->root(), 1));
    maid.clearCalls();
    EXPECT_FALSE(read());
    EXPECT_EQ(driver().work(m_source), nikon::kMaidNoAnswer);
    EXPECT_EQ(maid.calls(), std::vector<std::string>{});
}

// The lock.

TEST_F(MaidDriverTest, TwoThreadsAreNeverInsideAtOnce)
{
    completeAfter(2, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 20; ++n) {
                read();  // the fake complains
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(maid.count("Source CapGet 0x81D7"), 60);
}

TEST_F(MaidDriverTest, TheLockIsFreeBetweenTwoPollsOfAWait)
{
    m_tree->CloseTree();
    nikon::Timing timing = impatient();
    timing.running = 60s;
    openWith(timing);
    completeAfter(fake::kNever);
    auto first = std::async(std::launch::async, [&] { return read(); });
    EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
    auto second = std::async(std::launch::async, [&] { return read(); });
    EXPECT_EQ(second.wait_for(5s), std::future_status::ready);
    maid.completeAll();
    first.get();
}

TEST_F(MaidDriverTest, TheLockIsHeldDuringAWaitThatAGuardEncloses)
{
    completeAfter(fake::kNever);
    auto first = std::async(std::launch::async, [&] {
        const MaidDriver::Guard guard(driver());
        return read();
    });
    EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
    auto second = std::async(std::launch::async, [&] { return read(); });
    EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
    EXPECT_EQ(maid.count("Source CapGet 0x81D7"), 1);
    maid.completeAll();
    first.get();
    EXPECT_TRUE(second.get());
}

TEST_F(MaidDriverTest, AnObjectThatAnotherThreadClosesBetweenTwoPollsEndsTheWait)
{
    completeAfter(fake::kNever);
    auto first = std::async(std::launch::async, [&] { return read(); });
    EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
    const auto begun = Clock::now();
    EXPECT_TRUE(m_tree->CloseChild(m_tree->root(), 1));
    EXPECT_FALSE(first.get());
    EXPECT_LT(Clock::now() - begun, impatient().running);
    maid.completeAll();
}

TEST_F(MaidDriverTest, AGuardThatWaitsForNobodyIsRefusedWhileSomebodyAwaitsACompletion)
{
    completeAfter(fake::kNever);
    EXPECT_TRUE(MaidDriver::Guard(driver(), std::try_to_lock));
    auto first = std::async(std::launch::async, [&] { return read(); });
    EXPECT_TRUE(waitFor([&] { return maid.polls() > 2; }));
    for (int i = 0; i < 20; ++i) {
        EXPECT_FALSE(MaidDriver::Guard(driver(), std::try_to_lock));
    }
    maid.completeAll();
    first.get();
    EXPECT_TRUE(MaidDriver::Guard(driver(), std::try_to_lock));
}

TEST_F(MaidDriverTest, WhoWaitsBehindACommandThatNeverReturnsGivesUp)
{
    maid.hang(kMaidCommandCapGet, kMaidCapLiveness);
    auto hanging = std::async(std::launch::async, [&] { return read(); });
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    EXPECT_FALSE(read());
    maid.releaseHangs();
    EXPECT_TRUE(hanging.get());
}

TEST_F(MaidDriverTest, NobodyWaitsLongBehindASessionThatWasLeftBehind)
{
    const auto library = maid.library();
    nikon::Timing timing = impatient();
    timing.running = 10s;
    MaidDriver left(library, timing);
    MaidDriver other(library, timing);
    const MaidDriver::Guard inside(left);
    left.noteLeftBehind();
    auto waiting = std::async(std::launch::async, [&] {
        const MaidDriver::Guard guard(other);
        return static_cast<bool>(guard);
    });
    ASSERT_EQ(waiting.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(waiting.get());
}

TEST_F(MaidDriverTest, OnlyAModuleThatHasAThreadInsideSinceTheStopHangs)
{
    EXPECT_FALSE(driver().hangs());
    maid.hang(kMaidCommandCapGet, kMaidCapLiveness);
    auto hanging = std::async(std::launch::async, [&] { return read(); });
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    driver().enter(MaidDriver::Phase::stopping);
    EXPECT_FALSE(driver().hangs());
    EXPECT_TRUE(waitFor([&] { return driver().hangs(); }));
    maid.releaseHangs();
    hanging.get();
    EXPECT_FALSE(driver().hangs());
}

// Handles.

TEST(MaidHandles, AHandleFindsItsObjectUntilItIsGivenBack)
{
    nikon::Handles<int> handles;
    const auto number = std::make_shared<int>(7);
    MaidReference first = handles.add(number);
    MaidReference second = handles.add(number);
    EXPECT_NE(first, second);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(handles.find(first), number);
    handles.remove(first);
    EXPECT_EQ(handles.find(first), nullptr);
    EXPECT_EQ(handles.find(second), number);
    handles.remove(first);
    EXPECT_EQ(handles.size(), 1U);
}

TEST(MaidHandles, AHandleOfAnotherKindOrOfNobodysFindsNothing)
{
    nikon::Handles<int> numbers;
    nikon::Handles<std::string> texts;
    MaidReference handle = texts.add(std::make_shared<std::string>("a"));
    EXPECT_EQ(numbers.find(handle), nullptr);
    EXPECT_EQ(numbers.find(nullptr), nullptr);
    EXPECT_EQ(numbers.find(&handle), nullptr);
}

}  // namespace
