// What becomes of a number that is drawn twice. Only here a test can have the numbers drawn again.
#include "PictureName.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unordered_set>

#include "TemporaryFolder.h"
#include "TestSupport.h"

namespace {

// Makes the generator start again, so that the numbers of the last time would come again.
void repeatNumbers()
{
    std::srand(1);  // NOLINT(cert-msc51-cpp): the point is to be predictable
}

TEST(NewPicturePath, DrawsANumberAgainThatWasUsedInTheSameSecond)
{
    awaitNextSecond();
    repeatNumbers();
    const std::string first = newPicturePath("again", "Canon", ".JPG");
    repeatNumbers();
    EXPECT_NE(newPicturePath("again", "Canon", ".JPG"), first);
}

TEST(NewPicturePath, MayUseANumberAgainForAnotherFolderOrExtension)
{
    awaitNextSecond();
    repeatNumbers();
    const std::string first = newPicturePath("x", "Canon", ".JPG");
    repeatNumbers();
    const std::string second = newPicturePath("y", "Canon", ".JPG");
    EXPECT_EQ(first.substr(1), second.substr(1));
}

TEST(NewPicturePath, IsNewInABurstOfAnyLengthEvenWhenTheGeneratorRepeatsItself)
{
    awaitNextSecond();
    std::unordered_set<std::string> paths;
    for (int round = 0; round < 2; ++round) {
        repeatNumbers();
        for (int i = 0; i < 5'000; ++i) {
            paths.insert(newPicturePath("repeated", "Canon", ".JPG"));
        }
    }
    EXPECT_EQ(paths.size(), 10'000U);
}

TEST(NewPicture, TakesAnotherNumberWhenThatOfAnEarlierRunIsInTheFolder)
{
    awaitNextSecond();
    const TemporaryFolder folder;
    const auto always = [](const std::string& /*path*/) { return true; };
    repeatNumbers();
    // What another process would have called its first picture.
    const std::string other = newPicturePath("x", "Canon", ".JPG");
    const std::string taken = folder.path() + other.substr(1);
    std::ofstream(taken) << "theirs";
    repeatNumbers();
    EXPECT_NE(newPicture(folder.path(), "Canon", ".JPG", always).path, taken);
    EXPECT_EQ(contentOf(taken), "theirs");
}

TEST(NewPicturePath, TakesItsNumbersFromTheUnseededGenerator)
{
    const auto act = [] {
        const std::string number = '_' + std::to_string(std::rand());
        repeatNumbers();  // a generator that was never seeded behaves as if it were with 1
        const std::string path = newPicturePath("f", "Canon", "");
        const bool same = path.size() > number.size() &&
                          path.compare(path.size() - number.size(), number.size(), number) == 0;
        std::_Exit(same ? 0 : 1);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

}  // namespace
