// What the MAID layer writes to standard output.
#include "nikon/ProgressBar.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

#include "nikon/Console.h"

using nikon::Console;
using nikon::ProgressBar;

namespace {

constexpr const char* kHead =
    "\n0       20        40        60        80        100"
    "\n---------+---------+---------+---------+---------+\n";

std::string outputOf(const std::function<void()>& work)
{
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

std::string steps(std::size_t count)
{
    return std::string(count, ']');
}

TEST(Console, APutTextGetsALineEndAndAPrintedOneNone)
{
    EXPECT_EQ(outputOf([] { Console::puts("There is no item.\n"); }), "There is no item.\n\n");
    EXPECT_EQ(outputOf([] { Console::puts("There is not enough memory."); }),
              "There is not enough memory.\n");
    EXPECT_EQ(outputOf([] { Console::print("[%s]\n", "100%s"); }), "[100%s]\n");
    EXPECT_EQ(outputOf([] { Console::print("%d. Image\n", 1); }), "1. Image\n");
}

TEST(ProgressBarTest, ABarBeginsWithItsScale)
{
    ProgressBar bar;
    EXPECT_EQ(outputOf([&] { bar.show(0, 100); }), kHead);
}

TEST(ProgressBarTest, ABarThatHasBegunDoesNotBeginAgainUntilItIsFull)
{
    ProgressBar bar;
    EXPECT_EQ(outputOf([&] {
                  bar.show(0, 100);
                  bar.show(0, 100);
              }),
              kHead);
    EXPECT_EQ(outputOf([&] {
                  bar.show(100, 100);
                  bar.show(0, 100);
              }),
              steps(50) + "\n" + kHead);
}

TEST(ProgressBarTest, StepsAreCompletedFiftiethsRoundedUpAndDrawnOnce)
{
    ProgressBar bar;
    outputOf([&] { bar.show(0, 1000); });
    EXPECT_EQ(outputOf([&] { bar.show(1, 1000); }), steps(1));
    EXPECT_EQ(outputOf([&] { bar.show(20, 1000); }), "");
    EXPECT_EQ(outputOf([&] { bar.show(21, 1000); }), steps(1));
    EXPECT_EQ(outputOf([&] { bar.show(500, 1000); }), steps(23));
    EXPECT_EQ(outputOf([&] { bar.show(999, 1000); }), steps(25));
    EXPECT_EQ(outputOf([&] { bar.show(1000, 1000); }), "\n");
}

TEST(ProgressBarTest, WithoutATotalASignIsDrawnAtMostOnceInHalfASecond)
{
    ProgressBar bar;
    EXPECT_EQ(outputOf([&] {
                  bar.show(1, 0);
                  bar.show(1, 0);
              }),
              "c");
    std::this_thread::sleep_for(std::chrono::milliseconds(510));
    EXPECT_EQ(outputOf([&] { bar.show(1, 0); }), "c");
}

TEST(ProgressBarTest, WithoutATotalTheEndIsAlwaysDrawnAndOtherNumbersAreNot)
{
    ProgressBar bar;
    EXPECT_EQ(outputOf([&] {
                  bar.show(0, 0);
                  bar.show(0, 0);
                  bar.show(2, 0);
              }),
              "oo");
}

TEST(ProgressBarTest, MoreThanTheTotalAndHugeNumbersDrawNoMoreThanAFullBar)
{
    ProgressBar bar;
    EXPECT_EQ(outputOf([&] { bar.show(4294967295U, 1); }), steps(50));
    ProgressBar other;
    EXPECT_EQ(outputOf([&] { other.show(4294967294U, 4294967295U); }), steps(50));
    EXPECT_EQ(outputOf([&] { other.show(4294967295U, 4294967295U); }), "\n");
}

}  // namespace
