// Which threads still have an end to do.
#include "EndsUnderWay.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

// A thread that nobody else is.
struct OtherThread {
    std::thread thread{[] {}};
    std::thread::id id = thread.get_id();
    ~OtherThread() { thread.join(); }
};

TEST(EndsUnderWay, AreNoneAtFirst)
{
    EXPECT_FALSE(EndsUnderWay().isAny());
}

TEST(EndsUnderWay, AreThereUntilTheyAreDone)
{
    const OtherThread other;
    EndsUnderWay ends;
    ends.begin(other.id);
    EXPECT_TRUE(ends.isAny());
    EXPECT_TRUE(ends.isAny(std::this_thread::get_id()));
    EXPECT_FALSE(ends.isAny(other.id));
    ends.finish(other.id);
    EXPECT_FALSE(ends.isAny());
}

TEST(EndsUnderWay, OfOneThreadAreCounted)
{
    const OtherThread other;
    EndsUnderWay ends;
    ends.begin(other.id);
    ends.begin(other.id);
    ends.finish(other.id);
    EXPECT_TRUE(ends.isAny());
    ends.finish(other.id);
    EXPECT_FALSE(ends.isAny());
}

TEST(EndsUnderWay, OfOtherThreadsGoOn)
{
    const OtherThread one;
    const OtherThread two;
    EndsUnderWay ends;
    ends.begin(one.id);
    ends.begin(two.id);
    ends.finish(two.id);
    EXPECT_TRUE(ends.isAny());
    EXPECT_TRUE(ends.isAny(two.id));
    EXPECT_FALSE(ends.isAny(one.id));
}

TEST(EndsUnderWay, ThatWereNeverBegunChangeNothingWhenTheyAreDone)
{
    const OtherThread one;
    const OtherThread two;
    EndsUnderWay ends;
    ends.begin(one.id);
    ends.finish(two.id);
    EXPECT_TRUE(ends.isAny());
}

}  // namespace
