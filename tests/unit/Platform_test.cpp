// What the operating system is asked.
#include "PythonSupport.h"

#include "platform/Platform.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <future>
#include <optional>

#include "FileTest.h"
#include "MachineSettings.h"
#include "TemporaryFolder.h"
#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

TEST_F(FileTest, AFileIsArchived)
{
    EXPECT_EQ(attributes(makeFile()), 0x20U);
}

TEST_F(FileTest, AnEmptyFileIsAFile)
{
    const std::string path = makeFile();
    fs::resize_file(path, 0);
    EXPECT_EQ(attributes(path), 0x20U);
}

TEST_F(FileTest, AFolderIsADirectory)
{
    EXPECT_EQ(attributes(m_folder.u8string()), 0x10U);
}

TEST_F(FileTest, WhereNothingIsThereAreNoAttributes)
{
    EXPECT_EQ(attributes((m_folder / "nothing").u8string()), 0xFFFFFFFFU);
    EXPECT_EQ(attributes(makeFile() + "/below"), 0xFFFFFFFFU);
    EXPECT_EQ(attributes("Virtual EOS"), 0xFFFFFFFFU);
    EXPECT_EQ(attributes(""), 0xFFFFFFFFU);
    EXPECT_EQ(platform::fileAttributes(nullptr), 0xFFFFFFFFU);
}

TEST_F(FileTest, OnlyAFileIsNamedAsOne)
{
    EXPECT_TRUE(platform::namesFile(makeFile().c_str()));
    EXPECT_FALSE(platform::namesFile(m_folder.u8string().c_str()));
    EXPECT_FALSE(platform::namesFile((m_folder / "nothing").u8string().c_str()));
    EXPECT_FALSE(platform::namesFile(nullptr));
}

TEST_F(FileTest, NamesAreUtf8)
{
    const std::string path = makeFile("\xC3\xBC \xE5\x86\x99\xE7\x9C\x9F.md3");
    EXPECT_EQ(attributes(path), 0x20U);
    EXPECT_TRUE(platform::removeFile(path.c_str()));
    EXPECT_EQ(attributes(path), 0xFFFFFFFFU);
}

TEST_F(FileTest, ACompletePathMeansTheSameFileWhenTheCurrentFolderIsAnother)
{
    const std::string path = makeFile("\xC3\xBC \xE5\x86\x99.md3");
    std::string complete;
    {
        const CurrentFolder current(m_folder.u8string());
        complete = platform::completePath("\xC3\xBC \xE5\x86\x99.md3");
    }
    EXPECT_EQ(attributes(complete), 0x20U) << complete;
    EXPECT_TRUE(fs::u8path(complete).is_absolute()) << complete;
    EXPECT_EQ(platform::completePath(path), path);
    EXPECT_EQ(platform::completePath(""), "");
}

TEST_F(FileTest, ARemovedFileIsGoneAndCanBeRemovedAgain)
{
    const std::string path = makeFile();
    EXPECT_TRUE(platform::removeFile(path.c_str()));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(platform::removeFile(path.c_str()));
}

TEST_F(FileTest, ACreatedFileIsEmptyAndTakesBytes)
{
    const std::string path = (m_folder / "new").u8string();
    bool isThere = true;
    platform::File file = platform::createFile(path.c_str(), isThere);
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(isThere);
    EXPECT_EQ(fs::file_size(fs::u8path(path)), 0U);
    EXPECT_EQ(std::fputs("a\nb", file.get()) < 0, false);
    file.reset();
    EXPECT_EQ(fs::file_size(fs::u8path(path)), 3U);
}

TEST_F(FileTest, AFileThatIsThereIsNotCreatedAndNotTouched)
{
    const std::string path = makeFile();
    std::ofstream(fs::u8path(path)) << "content";
    bool isThere = false;
    EXPECT_EQ(platform::createFile(path.c_str(), isThere), nullptr);
    EXPECT_TRUE(isThere);
    EXPECT_EQ(fs::file_size(fs::u8path(path)), 7U);
    isThere = false;
    EXPECT_EQ(platform::createFile(m_folder.u8string().c_str(), isThere), nullptr);
    EXPECT_TRUE(isThere);
}

TEST_F(FileTest, AFileInAFolderThatIsNotThereIsNotCreated)
{
    bool isThere = true;
    EXPECT_EQ(platform::createFile((m_folder / "none" / "a").u8string().c_str(), isThere), nullptr);
    EXPECT_FALSE(isThere);
    EXPECT_FALSE(fs::exists(m_folder / "none"));
}

TEST_F(FileTest, AFolderIsNotRemoved)
{
    EXPECT_FALSE(platform::removeFile(m_folder.u8string().c_str()));
    EXPECT_TRUE(fs::exists(m_folder));
}

// The environment.

// The variable as it is read into `Size` bytes; nothing when that failed, which has to leave an
// empty buffer.
template <std::size_t Size>
std::optional<std::string> environment(const char* name)
{
    std::array<char, Size> buffer;
    buffer.fill('x');
    if (platform::environmentVariable(name, buffer.data(), buffer.size())) {
        return buffer.data();
    }
    EXPECT_EQ(buffer[0], '\0');
    return std::nullopt;
}

class EnvironmentTest : public testing::Test
{
protected:
    // By way of Python, which knows how on every system.
    static void set(const std::string& value)
    {
        const InterpreterLock lock;
        runPython("import os\nos.environ['lumatie test variable'] = '" + value + "'\n");
    }

    void TearDown() override
    {
        const InterpreterLock lock;
        runPython("import os\nos.environ.pop('lumatie test variable', None)\n");
    }

    const char* const m_name = "lumatie test variable";
};

TEST_F(EnvironmentTest, AVariableThatFitsIsCopied)
{
    set("abc");
    EXPECT_EQ(environment<64>(m_name), "abc");
    EXPECT_EQ(environment<4>(m_name), "abc");
}

TEST_F(EnvironmentTest, AVariableThatDoesNotFitIsNone)
{
    set("abc");
    EXPECT_EQ(environment<3>(m_name), std::nullopt);
    EXPECT_EQ(environment<1>(m_name), std::nullopt);
}

TEST_F(EnvironmentTest, AVariableThatIsNotSetIsNone)
{
    EXPECT_EQ(environment<64>(m_name), std::nullopt);
}

// The settings.

TEST(SettingsTest, WithoutAnyThereAreNone)
{
    const MachineSettings settings;
    EXPECT_EQ(platform::dumpMessageSetting(), std::nullopt);
}

TEST(SettingsTest, TheNumberIsRead)
{
    const MachineSettings settings;
    for (const std::uint32_t number : {1U, 0U, 0x100U, 0xFFFFFFFFU}) {
        settings.setDumpMessage(number);
        EXPECT_EQ(platform::dumpMessageSetting(), number);
    }
}

TEST(SettingsTest, WithoutTheNumberItIsZero)
{
    const MachineSettings settings;
    settings.setDumpMessage(1);
    settings.removeDumpMessage();
    EXPECT_EQ(platform::dumpMessageSetting(), 0U);
}

// Output, time.

TEST(PlatformTest, ALineForTheDebuggerGoesThereAsItIs)
{
    testing::internal::CaptureStderr();
    platform::debuggerOutput("100%s \xFF\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "100%s \xFF\n");
}

TEST(PlatformTest, ARejectedTextEndsTheProcessWithoutRunningExitFunctions)
{
    const auto act = [] {
        std::atexit([] { std::_Exit(9); });
        platform::rejectText("this");
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(3),
                testing::Eq("Lumatie: this; the process ends.\n"));
}

TEST(PlatformTest, RandomNumbersComeFromOneSequenceWhateverThreadAsks)
{
    std::vector<int> numbers;
    for (int thread = 0; thread < 4; ++thread) {
        std::thread([&] {
            for (int i = 0; i < 4; ++i) {
                numbers.push_back(platform::randomNumber());
            }
        }).join();
    }
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end()), numbers.end());
    EXPECT_GE(numbers.front(), 0);
    EXPECT_LE(numbers.back(), RAND_MAX);
}

TEST(PlatformTest, SleepsAtLeastAsLongAsAsked)
{
    for (const unsigned milliseconds : {0U, 1U, 20U, 1001U}) {
        const auto begin = Clock::now();
        platform::sleepFor(milliseconds);
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(milliseconds));
    }
}

TEST(PlatformTest, AComApartmentMayBeMadeOnAnyThreadAndTwice)
{
    std::thread([] {
        const platform::ComApartment outer;
        const platform::ComApartment inner;
    }).join();
}

// The mutex.

TEST(Mutex, IsGivenUpAsOftenAsItWasTaken)
{
    platform::Mutex mutex;
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_TRUE(mutex.unlock());
    EXPECT_FALSE(mutex.unlock());
}

TEST(Mutex, ThatIsFreeCannotBeGivenUp)
{
    platform::Mutex mutex;
    EXPECT_FALSE(mutex.unlock());
    EXPECT_TRUE(mutex.lock());
    EXPECT_TRUE(mutex.unlock());
}

TEST(Mutex, StaysItsOwnersWhenAnotherThreadGivesItUp)
{
    platform::Mutex mutex;
    mutex.lock();
    EXPECT_FALSE(std::async(std::launch::async, [&] { return mutex.unlock(); }).get());
    EXPECT_TRUE(mutex.unlock());
}

TEST(Mutex, KeepsOthersOutUntilItsLastLevelIsGivenUp)
{
    platform::Mutex mutex;
    std::atomic<bool> entered{false};
    mutex.lock();
    mutex.lock();
    std::future<void> other = std::async(std::launch::async, [&] {
        mutex.lock();
        entered = true;
        mutex.unlock();
    });
    mutex.unlock();
    // Nothing says that the other one waits by now; were it let in, it would mostly show.
    EXPECT_EQ(other.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    EXPECT_FALSE(entered);
    mutex.unlock();
    other.get();
    EXPECT_TRUE(entered);
}

TEST(Mutex, LetsOneThreadInAtATime)
{
    platform::Mutex mutex;
    int count = 0;  // unguarded but for the mutex
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                mutex.lock();
                ++count;
                mutex.unlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, 4000);
}

TEST(Mutex, DoesNotStarveAThreadBesideOneThatSleepsWhileItHoldsIt)
{
    platform::Mutex mutex;
    std::atomic<bool> arriving{false};
    std::atomic<bool> entered{false};
    mutex.lock();
    std::thread poster([&] {
        arriving = true;
        mutex.lock();
        entered = true;
        mutex.unlock();
    });
    EXPECT_TRUE(waitFor([&] { return arriving.load(); }));
    int rounds = 0;
    for (; !entered && rounds < 100; ++rounds) {
        platform::sleepFor(10);
        mutex.unlock();
        mutex.lock();
    }
    mutex.unlock();
    poster.join();
    // One round once the poster waits; the rest is for a busy machine to bring it there.
    EXPECT_LT(rounds, 50);
}

TEST(Mutex, IsTakenInTurnsByThreadsThatNeverRest)
{
    constexpr int kTurns = 120;
    platform::Mutex mutex;
    int turns = 0;
    std::array<int, 3> turnsOf = {};
    std::vector<std::thread> threads;
    for (int& own : turnsOf) {
        threads.emplace_back([&] {
            for (bool more = true; more;) {
                mutex.lock();
                platform::sleepFor(1);
                more = turns < kTurns;
                turns += more ? 1 : 0;
                own += more ? 1 : 0;
                mutex.unlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const int own : turnsOf) {
        EXPECT_GE(own, kTurns / 6);
    }
}

// The order in which threads get the mutex that asked for it one after the other, `pause` apart.
std::vector<int> orderOfEntry(unsigned pause)
{
    platform::Mutex mutex;
    std::vector<int> order;
    std::vector<std::thread> threads;
    mutex.lock();
    for (int number = 0; number < 5; ++number) {
        std::atomic<bool> arriving{false};
        threads.emplace_back([&mutex, &order, &arriving, number] {
            arriving = true;
            mutex.lock();
            order.push_back(number);
            mutex.unlock();
        });
        EXPECT_TRUE(waitFor([&] { return arriving.load(); }));
        platform::sleepFor(pause);
    }
    mutex.unlock();
    for (std::thread& thread : threads) {
        thread.join();
    }
    return order;
}

TEST(Mutex, GoesToTheOneThatHasWaitedLongest)
{
    // Nothing tells when a thread has begun to wait: a busy machine gets more time.
    std::vector<int> order;
    for (const unsigned pause : {5U, 20U, 80U, 320U}) {
        order = orderOfEntry(pause);
        if (order == std::vector<int>{0, 1, 2, 3, 4}) {
            break;
        }
    }
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

}  // namespace
