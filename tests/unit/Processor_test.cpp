// The queue of commands and its worker.
#include "canon/Processor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <utility>

#include "SignsOfLife.h"
#include "TestSupport.h"
#include "canon/CameraModel.h"

namespace {

using canon::CameraModel;
using canon::Command;
using canon::Processor;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using std::chrono::milliseconds;

// What happened, in order, with the time of each line.
class Journal
{
public:
    void add(const std::string& line)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_lines.push_back(line);
        m_times.push_back(Clock::now());
    }

    Lines lines() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_lines;
    }

    std::vector<Clock::time_point> times() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_times;
    }

    bool waitForLines(std::size_t count) const
    {
        return waitFor([&] { return lines().size() >= count; });
    }

private:
    mutable std::mutex m_lock;
    Lines m_lines;
    std::vector<Clock::time_point> m_times;
};

// Notes its executions by its name and its end as "~name"; fails `failures` times first.
class NotedCommand : public Command
{
public:
    NotedCommand(CameraModel& model, Journal& journal, std::string name, int failures)
        : Command(model), m_journal(journal), m_name(std::move(name)), m_failures(failures)
    {}
    ~NotedCommand() override { m_journal.add("~" + m_name); }

    bool execute() override
    {
        m_journal.add(m_name);
        return m_failures-- <= 0;
    }

private:
    Journal& m_journal;
    std::string m_name;
    int m_failures;
};

// Calls functions.
class FunctionCommand : public Command
{
public:
    FunctionCommand(CameraModel& model, std::function<void()> onExecute,
                    std::function<void()> onEnd = nullptr)
        : Command(model), m_onExecute(std::move(onExecute)), m_onEnd(std::move(onEnd))
    {}
    ~FunctionCommand() override
    {
        if (m_onEnd) {
            m_onEnd();
        }
    }

    bool execute() override
    {
        m_onExecute();
        return true;
    }

private:
    std::function<void()> m_onExecute;
    std::function<void()> m_onEnd;
};

class ProcessorTest : public VirtualCameraTest
{
protected:
    void TearDown() override
    {
        end();
        VirtualCameraTest::TearDown();
    }

    std::unique_ptr<Command> note(const std::string& name, int failures = 0)
    {
        return std::make_unique<NotedCommand>(m_model, m_journal, name, failures);
    }

    std::unique_ptr<Command> call(std::function<void()> onExecute,
                                  std::function<void()> onEnd = nullptr)
    {
        return std::make_unique<FunctionCommand>(m_model, std::move(onExecute), std::move(onEnd));
    }

    void post(const std::string& name, int failures = 0)
    {
        m_processor.enqueue(note(name, failures));
    }

    void end()
    {
        m_processor.stop();
        m_processor.join();
    }

    // Brings the worker into a command that lasts until letGo().
    void holdWorker()
    {
        auto entered = std::make_shared<std::promise<void>>();
        std::future<void> hasEntered = entered->get_future();
        m_processor.enqueue(call([entered, gate = m_gate.get_future().share()] {
            entered->set_value();
            gate.wait();
        }));
        ASSERT_EQ(hasEntered.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }

    void letGo() { m_gate.set_value(); }

    // Whether `action` on another thread is done before its deadline; waits for its end anyway.
    template <typename Action>
    static bool endsInTime(Action action, std::chrono::milliseconds deadline, Processor& processor)
    {
        std::future<void> done = std::async(std::launch::async, action);
        const bool inTime = done.wait_for(deadline) == std::future_status::ready;
        if (!inTime) {
            processor.stop();
        }
        done.get();
        return inTime;
    }

    Journal m_journal;
    CameraModel m_model{nullptr};
    Processor m_processor;
    std::promise<void> m_gate;
};

// Executing.

TEST_F(ProcessorTest, ExecutesCommandsInTheOrderOfPostingAndDestroysThem)
{
    ASSERT_TRUE(m_processor.startAndWait());
    post("A");
    post("B");
    post("C");
    ASSERT_TRUE(m_journal.waitForLines(6));
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "~A", "B", "~B", "C", "~C"}));
}

TEST_F(ProcessorTest, ExecutesWhatWasPostedBeforeTheStart)
{
    post("A");
    post("B");
    m_processor.startAndWait();
    ASSERT_TRUE(m_journal.waitForLines(4));
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "~A", "B", "~B"}));
}

TEST_F(ProcessorTest, ExecutesOnItsOwnThread)
{
    std::promise<bool> onWorker;
    m_processor.startAndWait();
    m_processor.enqueue(
        call([&] { onWorker.set_value(m_processor.runsOn(std::this_thread::get_id())); }));
    EXPECT_TRUE(onWorker.get_future().get());
    EXPECT_FALSE(m_processor.runsOn(std::this_thread::get_id()));
}

TEST_F(ProcessorTest, ExecutesNothingBeforeTheStart)
{
    post("A");
    EXPECT_FALSE(m_processor.isRunning());
    EXPECT_FALSE(m_processor.isAlive());
    m_processor.clear();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A"}));
}

TEST_F(ProcessorTest, RunsFromTheReturnOfItsStartOn)
{
    ASSERT_TRUE(m_processor.startAndWait());
    EXPECT_TRUE(m_processor.isRunning());
    EXPECT_TRUE(m_processor.isAlive());
    end();
    EXPECT_FALSE(m_processor.isRunning());
    EXPECT_FALSE(m_processor.isAlive());
}

TEST_F(ProcessorTest, TakesCommandsWhileOneIsExecuted)
{
    m_processor.startAndWait();
    holdWorker();
    EXPECT_TRUE(endsInTime([&] { post("A"); }, std::chrono::seconds(10), m_processor));
    letGo();
    EXPECT_TRUE(m_journal.waitForLines(2));
}

TEST_F(ProcessorTest, TakesCommandsFromACommand)
{
    m_processor.startAndWait();
    m_processor.enqueue(call([&] { post("A"); }));
    ASSERT_TRUE(m_journal.waitForLines(2));
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "~A"}));
}

TEST_F(ProcessorTest, ExecutesEveryCommandOfManyPostersOnceAndEachPostersInOrder)
{
    m_processor.startAndWait();
    std::array<std::vector<int>, 4> seen;
    std::atomic<int> count{0};
    std::vector<std::thread> posters;
    for (auto& own : seen) {
        posters.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                m_processor.enqueue(call([&own, &count, i] {
                    own.push_back(i);
                    ++count;
                }));
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_TRUE(waitFor([&] { return count == 200; }, std::chrono::seconds(30)));
    end();
    for (const auto& own : seen) {
        ASSERT_EQ(own.size(), 50U);
        EXPECT_TRUE(std::is_sorted(own.begin(), own.end()));
    }
}

TEST_F(ProcessorTest, GivesASignOfLifeForEachCommand)
{
    const unsigned before = signsOfLife();
    m_processor.startAndWait();
    post("A");
    ASSERT_TRUE(m_journal.waitForLines(2));
    EXPECT_TRUE(waitFor([&] { return signsOfLife() != before; }));
}

// Trying again.

TEST_F(ProcessorTest, ExecutesACommandThatFailsTwiceThreeTimesHalfASecondApart)
{
    m_processor.startAndWait();
    post("A", 2);
    ASSERT_TRUE(m_journal.waitForLines(4));
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "A", "A", "~A"}));
    const auto times = m_journal.times();
    EXPECT_GE(times[1] - times[0], milliseconds(500));
    EXPECT_GE(times[2] - times[1], milliseconds(500));
    EXPECT_LT(times[2] - times[0], milliseconds(3000));
}

TEST_F(ProcessorTest, PutsACommandThatFailedBehindTheOthers)
{
    post("A", 1);
    post("B");
    m_processor.startAndWait();
    ASSERT_TRUE(m_journal.waitForLines(5));
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "B", "~B", "A", "~A"}));
}

TEST_F(ProcessorTest, PutsACommandThatFailedBehindWhatWasPostedDuringThePause)
{
    m_processor.startAndWait();
    post("A", 1);
    ASSERT_TRUE(m_journal.waitForLines(1));
    post("B");
    ASSERT_TRUE(m_journal.waitForLines(5));
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "B", "~B", "A", "~A"}));
}

TEST_F(ProcessorTest, DoesNotTryAgainWhatFailsWhileItIsStopped)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("close"));
    m_processor.enqueue(call([&] { m_processor.stop(); }));
    post("A", 1);
    m_processor.join();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A", "close", "~close"}));
}

TEST_F(ProcessorTest, DestroysACommandThatWaitsForItsNextTry)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("close"));
    post("A", 1'000'000);
    ASSERT_TRUE(m_journal.waitForLines(1));
    end();
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "~A", "close", "~close"}));
}

// Stopping.

TEST_F(ProcessorTest, DestroysUnexecutedWhatWasPostedAfterTheStopAndClosesOnce)
{
    m_processor.startAndWait();
    holdWorker();
    m_processor.setCloseCommand(note("close"));
    m_processor.stop();
    post("A");
    post("B");
    EXPECT_EQ(m_journal.lines(), Lines{});
    letGo();
    m_processor.join();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A", "~B", "close", "~close"}));
}

TEST_F(ProcessorTest, DestroysUnexecutedWhatWasQueuedAtTheStop)
{
    m_processor.startAndWait();
    holdWorker();
    post("A");
    m_processor.setCloseCommand(note("close"));
    m_processor.stop();
    letGo();
    m_processor.join();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A", "close", "~close"}));
}

TEST_F(ProcessorTest, FinishesTheCommandThatItIsIn)
{
    m_processor.startAndWait();
    auto entered = std::make_shared<std::promise<void>>();
    auto hasEntered = entered->get_future();
    m_processor.enqueue(call([&, entered, gate = m_gate.get_future().share()] {
        entered->set_value();
        gate.wait();
        m_journal.add("finished");
    }));
    hasEntered.wait();
    m_processor.stop();
    letGo();
    m_processor.join();
    EXPECT_EQ(m_journal.lines(), (Lines{"finished"}));
}

TEST_F(ProcessorTest, DestroysAtOnceWhatIsPostedAfterItsEnd)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("close"));
    end();
    post("A");
    EXPECT_EQ(m_journal.lines(), (Lines{"close", "~close", "~A"}));
}

TEST_F(ProcessorTest, DestroysAtOnceWhatTheCloseCommandPosts)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(call([&] { post("A"); }));
    end();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A"}));
}

TEST_F(ProcessorTest, ClosesOnItsOwnThreadAndOnlyOnceEvenWhenThatFails)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("close", 5));
    end();
    EXPECT_EQ(m_journal.lines(), (Lines{"close", "~close"}));
}

TEST_F(ProcessorTest, ForgetsACloseCommandThatIsReplaced)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("first"));
    m_processor.setCloseCommand(note("second"));
    end();
    EXPECT_EQ(m_journal.lines(), (Lines{"~first", "second", "~second"}));
}

TEST_F(ProcessorTest, WithoutACloseCommandEndsWithoutACallOfTheLibrary)
{
    m_processor.startAndWait();
    holdWorker();
    post("A");
    m_processor.stop();
    letGo();
    m_processor.join();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A"}));
    EXPECT_EQ(VirtualCameraCallCount("*"), 0);
}

TEST_F(ProcessorTest, WithAnEmptyQueueEndsWithinAboutTenMilliseconds)
{
    auto fastest = Clock::duration::max();
    for (int round = 0; round < 10; ++round) {
        Processor processor;
        processor.startAndWait();
        const auto begin = Clock::now();
        processor.stop();
        processor.join();
        fastest = std::min(fastest, Clock::now() - begin);
    }
    EXPECT_LT(fastest, milliseconds(30));
}

TEST_F(ProcessorTest, StoppedTwiceIsStopped)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("close"));
    m_processor.stop();
    m_processor.stop();
    m_processor.join();
    m_processor.stop();
    EXPECT_EQ(m_journal.lines(), (Lines{"close", "~close"}));
}

TEST_F(ProcessorTest, StoppedBeforeItsStartRunsAllTheSame)
{
    m_processor.stop();
    m_processor.startAndWait();
    EXPECT_TRUE(m_processor.isRunning());
    post("A");
    EXPECT_TRUE(m_journal.waitForLines(2));
}

TEST_F(ProcessorTest, StoppedAtOnceEndsAThousandTimes)
{
    for (int round = 0; round < 1000; ++round) {
        Processor processor;
        ASSERT_TRUE(processor.startAndWait());
        processor.stop();
        processor.join();
        ASSERT_FALSE(processor.isAlive());
    }
}

TEST_F(ProcessorTest, StoppedAtOnceStillClosesEveryTime)
{
    std::atomic<int> closed{0};
    for (int round = 0; round < 100; ++round) {
        Processor processor;
        processor.startAndWait();
        processor.setCloseCommand(call([&] { ++closed; }));
        processor.stop();
        processor.join();
    }
    EXPECT_EQ(closed, 100);
}

TEST_F(ProcessorTest, LosesNoCommandThatIsPostedWhileItStops)
{
    std::atomic<int> destroyed{0};
    m_processor.startAndWait();
    std::thread poster([&] {
        for (int i = 0; i < 500; ++i) {
            m_processor.enqueue(call([] {}, [&] { ++destroyed; }));
        }
    });
    end();
    poster.join();
    EXPECT_EQ(destroyed, 500);
}

// The queue.

TEST_F(ProcessorTest, ClearsItsQueueFrontToBackWithoutExecuting)
{
    post("A");
    post("B");
    post("C");
    m_processor.clear();
    m_processor.clear();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A", "~B", "~C"}));
}

TEST_F(ProcessorTest, DestroysWhatIsQueuedWithItself)
{
    {
        Processor processor;
        processor.enqueue(note("A"));
        processor.enqueue(note("B"));
    }
    EXPECT_EQ(m_journal.lines(), (Lines{"~A", "~B"}));
}

TEST_F(ProcessorTest, IsOpenWhileItClearsItsQueue)
{
    bool inTime = false;
    m_processor.enqueue(call(
        [] {},
        [&] { inTime = endsInTime([&] { post("A"); }, std::chrono::seconds(10), m_processor); }));
    m_processor.clear();
    EXPECT_TRUE(inTime);
}

TEST_F(ProcessorTest, KeepsAPosterWaitingForAboutOneIdlePause)
{
    m_processor.startAndWait();
    const auto begin = Clock::now();
    for (int i = 0; i < 50; ++i) {
        // The worker is idle each time, its pause behind a command being over.
        std::this_thread::sleep_for(milliseconds(5));
        post("A");
        ASSERT_TRUE(m_journal.waitForLines(static_cast<std::size_t>(2 * i) + 2));
    }
    EXPECT_LT(Clock::now() - begin, 50 * milliseconds(60));
}

TEST_F(ProcessorTest, DoesNotKeepAPosterWaitingDuringThePauseAfterAFailure)
{
    m_processor.startAndWait();
    post("A", 1);
    ASSERT_TRUE(m_journal.waitForLines(1));
    const auto begin = Clock::now();
    post("B");
    EXPECT_LT(Clock::now() - begin, milliseconds(400));
}

}  // namespace
