// The names of the pictures in the export folder.
#include "PictureName.h"

#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "TestSupport.h"
#include "platform/Platform.h"

namespace {

// Returns when a second has just begun, so that what follows falls into one.
void awaitNextSecond()
{
    const std::time_t now = std::time(nullptr);
    ASSERT_TRUE(waitFor([&] { return std::time(nullptr) != now; }));
}

// Makes the generator start again, so that the numbers of the last time would come again.
void repeatNumbers()
{
    std::srand(1);  // NOLINT(cert-msc51-cpp): the point is to be predictable
}

TEST(PictureExtension, IsEverythingFromTheLastDot)
{
    EXPECT_EQ(pictureExtension("IMG_0001.CR2"), ".CR2");
    EXPECT_EQ(pictureExtension("a.tar.gz"), ".gz");
    EXPECT_EQ(pictureExtension("IMG_0001."), ".");
    EXPECT_EQ(pictureExtension("..jpg"), ".jpg");
}

TEST(PictureExtension, OfANameWithoutDotIsEmpty)
{
    EXPECT_EQ(pictureExtension("IMG_0001"), "");
    EXPECT_EQ(pictureExtension(""), "");
}

TEST(PictureExtension, OfANameThatStartsWithItsOnlyDotIsTheWholeName)
{
    EXPECT_EQ(pictureExtension(".bashrc"), ".bashrc");
    EXPECT_EQ(pictureExtension("DCIM/.bashrc"), ".bashrc");
}

TEST(PictureExtension, IsLookedForInTheLastComponentOnly)
{
    EXPECT_EQ(pictureExtension("a.b/c"), "");
    EXPECT_EQ(pictureExtension("C:\\100.EOS\\IMG_0001"), "");
    EXPECT_EQ(pictureExtension("C:\\100.EOS\\IMG_0001.JPG"), ".JPG");
    EXPECT_EQ(pictureExtension("a.b/"), "");
}

TEST(PictureExtension, KeepsBytesAsTheyAre)
{
    EXPECT_EQ(pictureExtension("x.\xC3\xBC%d \xFF"), ".\xC3\xBC%d \xFF");
}

TEST(NewPicturePath, IsFolderVendorSecondsNumberAndExtension)
{
    const std::time_t before = std::time(nullptr);
    const std::string path = newPicturePath("folder", "Canon", ".CR2");
    const std::time_t after = std::time(nullptr);

    const std::string start = std::string("folder") + platform::kPathSeparator + "Canon_";
    ASSERT_EQ(path.substr(0, start.size()), start);
    ASSERT_EQ(path.substr(path.size() - 4), ".CR2");
    const std::string numbers = path.substr(start.size(), path.size() - start.size() - 4);
    EXPECT_EQ(numbers.find_first_not_of("0123456789_"), std::string::npos) << path;

    const std::size_t gap = numbers.find('_');
    ASSERT_EQ(gap, numbers.rfind('_')) << path;
    EXPECT_GE(std::stoll(numbers.substr(0, gap)), before);
    EXPECT_LE(std::stoll(numbers.substr(0, gap)), after);
    EXPECT_LE(std::stoll(numbers.substr(gap + 1)), RAND_MAX);
}

TEST(NewPicturePath, TakesTheVendorAndAnEmptyExtensionAsTheyStand)
{
    const std::string path = newPicturePath("/a b/it's", "Nikon", "");
    const std::string separator(1, platform::kPathSeparator);
    EXPECT_EQ(path.rfind("/a b/it's" + separator + "Nikon_", 0), 0U) << path;
    EXPECT_NE(std::string("0123456789").find(path.back()), std::string::npos) << path;
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

TEST(NewPicturePath, IsNewTenThousandTimes)
{
    std::unordered_set<std::string> paths;
    for (int i = 0; i < 10'000; ++i) {
        paths.insert(newPicturePath("burst", "Canon", ".JPG"));
    }
    EXPECT_EQ(paths.size(), 10'000U);
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

TEST(NewPicturePath, IsNewOnEveryThread)
{
    std::vector<std::vector<std::string>> paths(4);
    std::vector<std::thread> threads;
    for (auto& own : paths) {
        threads.emplace_back([&own] {
            for (int i = 0; i < 500; ++i) {
                own.push_back(newPicturePath("threads", "Canon", ".JPG"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::unordered_set<std::string> all;
    for (const auto& own : paths) {
        all.insert(own.begin(), own.end());
    }
    EXPECT_EQ(all.size(), 2'000U);
}

}  // namespace
