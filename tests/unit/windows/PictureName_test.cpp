// Picture names from the 32768 numbers that Windows has.
#include "PictureName.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unordered_set>

namespace {

TEST(NewPicturePath, BeginsWithTheFirstNumberOfTheSystemsGenerator)
{
    const auto act = [] {
        const std::string path = newPicturePath("f", "Canon", ".JPG");
        std::_Exit(path.substr(path.size() - 7) == "_41.JPG" ? 0 : 1);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

TEST(NewPicturePath, IsNewEvenWhenTheNumbersOfASecondAreUsedUp)
{
    std::unordered_set<std::string> paths;
    for (int i = 0; i < 40'000; ++i) {
        paths.insert(newPicturePath("burst", "Canon", ".JPG"));
    }
    EXPECT_EQ(paths.size(), 40'000U);
}

}  // namespace
