// When messages are written, and what becomes of them when nobody reads. Only POSIX systems tell it
// apart this way.
#include "nikon/Console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

using nikon::Console;

namespace {

// Writes to a standard output that is a file, and ends the process without a chance to write more.
[[noreturn]] void writeAndEnd(const std::function<void()>& write)
{
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IOFBF, 4096);
    write();
    std::_Exit(0);
}

TEST(ConsoleDeathTest, WritesAtOnce)
{
    EXPECT_EXIT(writeAndEnd([] { Console::puts("There is no item."); }), testing::ExitedWithCode(0),
                "There is no item\\.\n");
    EXPECT_EXIT(writeAndEnd([] { Console::print("%d. Image\n", 1); }), testing::ExitedWithCode(0),
                "1\\. Image\n");
}

TEST(ConsoleDeathTest, WritesBehindWhatTheCLibraryHolds)
{
    EXPECT_EXIT(writeAndEnd([] {
                    std::fputs("before, ", stdout);
                    Console::puts("after");
                }),
                testing::ExitedWithCode(0), "^before, after\n");
}

// Standard output is a pipe that is full.
class ConsoleTest : public testing::Test
{
protected:
    using Clock = std::chrono::steady_clock;

    void SetUp() override
    {
        std::fflush(stdout);
        m_before = ::dup(STDOUT_FILENO);
        ASSERT_EQ(::pipe2(m_ends, O_CLOEXEC), 0);
        ASSERT_EQ(::pipe2(m_word, O_CLOEXEC), 0);
        ::dup2(m_ends[1], STDOUT_FILENO);
        ::fcntl(m_ends[1], F_SETFL, O_NONBLOCK);
        const std::string page(4096, 'x');
        for (ssize_t done = 1; done > 0;) {
            done = ::write(m_ends[1], page.data(), page.size());
            m_filled += done > 0 ? static_cast<std::size_t>(done) : 0;
        }
        ::fcntl(m_ends[1], F_SETFL, 0);
    }

    void TearDown() override
    {
        ::dup2(m_before, STDOUT_FILENO);
        for (const int file : {m_before, m_ends[0], m_ends[1], m_word[0], m_word[1]}) {
            ::close(file);
        }
    }

    // Reads `size` bytes; waits for them.
    static std::string read(int file, std::size_t size)
    {
        std::string text(size, '\0');
        std::size_t done = 0;
        while (done < size) {
            const ssize_t got = ::read(file, text.data() + done, size - done);
            if (got <= 0) {
                break;
            }
            done += static_cast<std::size_t>(got);
        }
        return text.substr(0, done);
    }

    int m_before = -1;
    int m_ends[2] = {-1, -1};
    int m_word[2] = {-1, -1};  // a pipe of a child's, for what it has to say
    std::size_t m_filled = 0;
};

TEST_F(ConsoleTest, IsNotHeldUpByAReaderThatDoesNotRead)
{
    const auto start = Clock::now();
    for (int line = 0; line < 1'000; ++line) {
        Console::print("%d\n", line);
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    read(m_ends[0], m_filled);
    EXPECT_EQ(read(m_ends[0], 6), "0\n1\n2\n");
    Console::puts("and on");
    std::string rest;
    while (rest.find("999\nand on\n") == std::string::npos && rest.size() < 10'000) {
        rest += read(m_ends[0], 1);
    }
    EXPECT_EQ(rest.substr(rest.size() - 11), "999\nand on\n");
}

TEST_F(ConsoleTest, LosesWhatIsTooMuchToKeep)
{
    const std::string text(30'000, 'k');
    for (int i = 0; i < 100; ++i) {
        Console::puts(text.c_str());
    }
    read(m_ends[0], m_filled);
    // The one that was being written, and two that were kept.
    EXPECT_EQ(read(m_ends[0], 90'003), text + '\n' + text + '\n' + text + '\n');
    Console::puts("next");
    EXPECT_EQ(read(m_ends[0], 5), "next\n");
}

TEST_F(ConsoleTest, DoesNotHoldUpTheEndOfTheProcess)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        Console::puts("lost");
        std::exit(7);  // NOLINT(concurrency-mt-unsafe): the only thread here
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(ConsoleTest, GetsOutWhatIsHeldWhenTheReaderGoesOnBeforeTheEnd)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        Console::puts("first");  // is waited for in vain
        Console::puts("second");
        ::dup2(m_word[1], STDERR_FILENO);
        std::fputs("ending", stderr);
        std::exit(0);  // NOLINT(concurrency-mt-unsafe): the only thread here
    }
    EXPECT_EQ(read(m_word[0], 6), "ending");
    read(m_ends[0], m_filled);
    EXPECT_EQ(read(m_ends[0], 13), "first\nsecond\n");
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(ConsoleTest, WritesInAProcessThatWasSplitOffWhileItWasStuck)
{
    Console::puts("stuck");
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        ::dup2(m_word[1], STDOUT_FILENO);
        Console::puts("split off");
        ::_exit(0);
    }
    EXPECT_EQ(read(m_word[0], 10), "split off\n");
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    read(m_ends[0], m_filled);
    EXPECT_EQ(read(m_ends[0], 6), "stuck\n");
}

TEST(ConsoleThreadTest, EndsWithoutTextsUnlessItIsKept)
{
    const auto threadsLater = [](bool isKept) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);
            Console::puts("text");
            if (isKept) {
                Console::keepThread();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(300));  // longer than it lingers
            const std::filesystem::directory_iterator threads("/proc/self/task");
            ::_exit(static_cast<int>(std::distance(begin(threads), end(threads))));
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        return WEXITSTATUS(status);
    };
    EXPECT_EQ(threadsLater(false), 1);
    EXPECT_EQ(threadsLater(true), 2);
}

}  // namespace
