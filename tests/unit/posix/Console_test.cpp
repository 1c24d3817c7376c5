// When messages are written. Only POSIX systems tell it apart this way.
#include "nikon/Console.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

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

}  // namespace
