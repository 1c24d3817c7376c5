// The queue of commands and its worker.
#include "canon/Processor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <utility>

#include "ProcessHeartbeat.h"
#include "TestSupport.h"
#include "canon/CameraModel.h"
#include "platform/Platform.h"

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

// Sets a property; noted as a NotedCommand is.
class NotedSetting : public NotedCommand
{
public:
    NotedSetting(CameraModel& model, Journal& journal, std::string name, EdsPropertyID property)
        : NotedCommand(model, journal, std::move(name), 0), m_property(property)
    {}

    std::optional<EdsPropertyID> settingOf() const override { return m_property; }

private:
    EdsPropertyID m_property;
};

// Stops the processor, and fails once; noted as a NotedCommand is.
class StoppingCommand : public NotedCommand
{
public:
    StoppingCommand(CameraModel& model, Journal& journal, std::string name, Processor& processor)
        : NotedCommand(model, journal, std::move(name), 1), m_processor(processor)
    {}

    bool execute() override
    {
        m_processor.stop();
        return NotedCommand::execute();
    }

private:
    Processor& m_processor;
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

constexpr std::size_t kLongQueue = 100;  // of the tests

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

    // A setting of the property of that number.
    void set(const std::string& name, EdsPropertyID property)
    {
        m_processor.enqueue(std::make_unique<NotedSetting>(m_model, m_journal, name, property));
    }

    // Makes the queue a long one with pictures, which are none of the settings that follow.
    void fillQueue()
    {
        for (std::size_t i = 0; i < kLongQueue; ++i) {
            m_processor.enqueue(call([] {}));
        }
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
    Processor m_processor{kLongQueue};
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
    const unsigned before = ProcessHeartbeat::count();
    m_processor.startAndWait();
    post("A");
    ASSERT_TRUE(m_journal.waitForLines(2));
    EXPECT_TRUE(waitFor([&] { return ProcessHeartbeat::count() != before; }));
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
    EXPECT_LT(std::min(times[1] - times[0], times[2] - times[1]), milliseconds(900));
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
    m_processor.enqueue(std::make_unique<StoppingCommand>(m_model, m_journal, "A", m_processor));
    m_processor.join();
    EXPECT_EQ(m_journal.lines(), (Lines{"A", "~A", "close", "~close"}));
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

TEST_F(ProcessorTest, KeepsEveryValueOfASettingWhileItsQueueIsShort)
{
    Lines expected;
    for (std::size_t i = 0; i < kLongQueue; ++i) {
        set(std::to_string(i), 1);
        expected.push_back("~" + std::to_string(i));
    }
    EXPECT_EQ(m_journal.lines(), Lines{});
    m_processor.clear();
    EXPECT_EQ(m_journal.lines(), expected);
}

TEST_F(ProcessorTest, PutsANewValueInThePlaceOfAnOlderOneInALongQueue)
{
    fillQueue();
    set("A1", 1);
    set("B1", 2);
    set("A2", 1);
    set("C1", 3);
    set("A3", 1);
    set("B2", 2);
    EXPECT_EQ(m_journal.lines(), (Lines{"~A1", "~A2", "~B1"}));
    m_processor.clear();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A1", "~A2", "~B1", "~A3", "~B2", "~C1"}));
}

TEST_F(ProcessorTest, PutsNoValueAcrossAPictureOrARead)
{
    fillQueue();
    set("A1", 1);
    post("picture");
    set("A2", 1);
    EXPECT_EQ(m_journal.lines(), Lines{});
    set("A3", 1);
    EXPECT_EQ(m_journal.lines(), Lines{"~A2"});
    m_processor.clear();
    EXPECT_EQ(m_journal.lines(), (Lines{"~A2", "~A1", "~picture", "~A3"}));
}

TEST_F(ProcessorTest, KeepsEveryRequestThatIsNoSettingInALongQueue)
{
    fillQueue();
    Lines expected;
    for (int i = 0; i < 100; ++i) {
        post("picture");
        expected.emplace_back("~picture");
    }
    EXPECT_EQ(m_journal.lines(), Lines{});
    m_processor.clear();
    EXPECT_EQ(m_journal.lines(), expected);
}

TEST_F(ProcessorTest, KeepsNoMoreSettingsThanALongQueueAndOneOfEach)
{
    constexpr std::size_t kPosted = 20'000;
    constexpr std::size_t kSettings = 5;
    for (std::size_t i = 0; i < kPosted; ++i) {
        set("", static_cast<EdsPropertyID>(i % kSettings));
    }
    EXPECT_LE(kPosted - m_journal.lines().size(), kLongQueue + kSettings);
    EXPECT_GE(kPosted - m_journal.lines().size(), kLongQueue);
}

TEST_F(ProcessorTest, ExecutesTheLastValueOfEachSettingOfALongQueueLast)
{
    fillQueue();
    for (int i = 0; i < 100; ++i) {
        set("A" + std::to_string(i), 1);
        set("B" + std::to_string(i), 2);
    }
    const std::size_t before = m_journal.lines().size();
    m_processor.startAndWait();
    ASSERT_TRUE(m_journal.waitForLines(before + 4));
    const Lines lines = m_journal.lines();
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()), (Lines{"A99", "~A99", "B99", "~B99"}));
}

TEST_F(ProcessorTest, RefusesWhatIsPostedAfterItWasDiscarded)
{
    post("A");
    m_processor.discard();
    EXPECT_EQ(m_journal.lines(), Lines{"~A"});
    post("B");
    set("C", 1);
    EXPECT_EQ(m_journal.lines(), (Lines{"~A", "~B", "~C"}));
}

// Ending on a thread that does not come back.

TEST_F(ProcessorTest, FinishesInsideACommandWhatAStoppedWorkerHasStillToDo)
{
    auto processor = std::make_shared<Processor>();
    const std::weak_ptr<Processor> watched = processor;
    processor->startAndWait(processor);
    processor->setCloseCommand(note("close"));
    std::promise<void> joined;
    processor->enqueue(call([&, own = processor.get()] {
        own->enqueue(note("A"));
        own->stop();
        Processor::finishOnThisThread();
        m_journal.add("finished");
        joined.get_future().wait();
    }));
    processor->join();
    EXPECT_FALSE(processor->isAlive());
    ASSERT_TRUE(m_journal.waitForLines(4));
    EXPECT_EQ(m_journal.lines(), (Lines{"~A", "close", "~close", "finished"}));
    // Here, unlike where the process ends, the command comes back to the loop.
    processor = nullptr;
    joined.set_value();
    EXPECT_TRUE(waitFor([&] { return watched.expired(); }));
    EXPECT_EQ(m_journal.lines().size(), 4U);
}

TEST_F(ProcessorTest, FinishesNothingInsideACommandWhileNobodyStopsIt)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("close"));
    m_processor.enqueue(call([&] {
        Processor::finishOnThisThread();
        m_journal.add("goes on");
    }));
    post("A");
    ASSERT_TRUE(m_journal.waitForLines(3));
    EXPECT_EQ(m_journal.lines(), (Lines{"goes on", "A", "~A"}));
    end();
    EXPECT_EQ(m_journal.lines(), (Lines{"goes on", "A", "~A", "close", "~close"}));
}

TEST_F(ProcessorTest, FinishesNothingOnAThreadThatIsNoWorker)
{
    m_processor.startAndWait();
    m_processor.setCloseCommand(note("close"));
    Processor::finishOnThisThread();
    EXPECT_TRUE(m_processor.isRunning());
    EXPECT_EQ(m_journal.lines(), Lines{});
}

TEST_F(ProcessorTest, PausesAMillisecondBeforeEachCommand)
{
    constexpr std::size_t kCount = 20;
    // What the system makes of so many pauses differs; so they are compared with the same ones.
    auto reference = Clock::duration::max();
    auto fastest = Clock::duration::max();
    for (int round = 0; round < 10; ++round) {
        const auto begin = Clock::now();
        for (std::size_t i = 0; i < kCount; ++i) {
            platform::sleepFor(1);
        }
        reference = std::min(reference, Clock::now() - begin);

        Journal journal;
        Processor processor;
        for (std::size_t i = 0; i <= kCount; ++i) {
            processor.enqueue(std::make_unique<NotedCommand>(m_model, journal, "A", 0));
        }
        ASSERT_TRUE(processor.startAndWait());
        ASSERT_TRUE(journal.waitForLines(2 * kCount + 1));
        processor.stop();
        processor.join();
        // The line of a command and that of its destruction take turns.
        fastest = std::min(fastest, journal.times()[2 * kCount] - journal.times()[0]);
    }
    EXPECT_GT(fastest, reference / 2);
    EXPECT_LT(fastest, 3 * reference);
}

TEST_F(ProcessorTest, KeepsItsQueueClosedForTenMillisecondsAtATimeWhileItIsIdle)
{
    m_processor.startAndWait();
    // One that gets in at once came in the pause before, or before the worker was there again.
    std::vector<Clock::duration> waits;
    ASSERT_TRUE(waitFor([&] {
        const auto begin = Clock::now();
        m_processor.clear();
        const auto wait = Clock::now() - begin;
        if (wait > std::chrono::microseconds(500)) {
            waits.push_back(wait);
        }
        return waits.size() == 25;
    }));
    std::nth_element(waits.begin(), waits.begin() + 12, waits.end());
    EXPECT_GT(waits[12], milliseconds(6));
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
