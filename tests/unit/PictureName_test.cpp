// The names of the pictures in the export folder.
#include "PictureName.h"

#include <ctime>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "RecentNames.h"
#include "TemporaryFolder.h"
#include "platform/Platform.h"

namespace {

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

TEST(RecentNames, OfTheCurrentSecondAreAllRemembered)
{
    RecentNames names;
    for (int i = 0; i < 5'000; ++i) {
        ASSERT_TRUE(names.add(7, std::to_string(i)));
    }
    EXPECT_FALSE(names.add(7, "0"));
    EXPECT_EQ(names.size(), 5'000U);
}

TEST(RecentNames, OfEarlierSecondsAreRememberedWhenTheClockIsSetBack)
{
    RecentNames names;
    names.add(7, "name");
    for (std::size_t i = 1; i < RecentNames::kKept; ++i) {
        names.add(8, std::to_string(i));
    }
    EXPECT_FALSE(names.add(7, "name"));
}

TEST(RecentNames, DoNotGrowWithALongSession)
{
    RecentNames names;
    for (int second = 0; second < 5'000; ++second) {
        ASSERT_TRUE(names.add(second, std::to_string(second)));
    }
    EXPECT_EQ(names.size(), 256U);
    EXPECT_TRUE(names.add(5'000, "0"));
    // A burst is forgotten again.
    for (int i = 0; i < 1'000; ++i) {
        names.add(6'000, "burst" + std::to_string(i));
    }
    names.add(6'001, "after it");
    EXPECT_EQ(names.size(), 256U);
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

TEST(NewPicturePath, IsNewTenThousandTimes)
{
    std::unordered_set<std::string> paths;
    for (int i = 0; i < 10'000; ++i) {
        paths.insert(newPicturePath("burst", "Canon", ".JPG"));
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

class NewPictureTest : public testing::Test
{
protected:
    static bool always(const std::string& /*path*/) { return true; }

    TemporaryFolder m_folder;
};

TEST_F(NewPictureTest, IsAnEmptyFileThatWasNotThere)
{
    const NewPicture picture = newPicture(m_folder.path(), "Canon", ".CR2", always);
    EXPECT_NE(picture.file, nullptr);
    EXPECT_EQ(platform::fileAttributes(picture.path.c_str()), platform::kAttributeArchive);
    EXPECT_EQ(contentOf(picture.path), "");
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(NewPictureTest, TakesAnotherNameWhenSomebodyComesBetween)
{
    std::vector<std::string> taken;
    const auto comeBetween = [&](const std::string& path) {
        if (taken.size() < 3) {
            taken.push_back(path);
            std::ofstream(std::filesystem::u8path(path)) << "theirs";
        }
        return true;
    };
    const NewPicture picture = newPicture(m_folder.path(), "Nikon", ".jpg", comeBetween);
    EXPECT_NE(picture.file, nullptr);
    ASSERT_EQ(taken.size(), 3U);
    for (const std::string& path : taken) {
        EXPECT_NE(path, picture.path);
        EXPECT_EQ(contentOf(path), "theirs");
    }
    EXPECT_EQ(m_folder.size(), 4);
}

TEST_F(NewPictureTest, IsAPathAloneWhenNoFileMayOrCanBeMade)
{
    int asked = 0;
    const auto never = [&](const std::string& path) {
        ++asked;
        EXPECT_EQ(platform::fileAttributes(path.c_str()), platform::kNoAttributes);
        return false;
    };
    EXPECT_EQ(newPicture(m_folder.path(), "Canon", ".JPG", never).file, nullptr);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(m_folder.size(), 0);

    const std::string missing = m_folder.path() + "/missing";
    const NewPicture picture = newPicture(missing, "Canon", ".JPG", always);
    EXPECT_EQ(picture.file, nullptr);
    EXPECT_EQ(picture.path.rfind(missing, 0), 0U);
}

TEST_F(NewPictureTest, LastsNoLongerThanTheSecondWhoseNamesAreAllTaken)
{
    // The folder and the seconds' underscore: what stands between two names of one second.
    const std::size_t length = m_folder.path().size() + std::string("/Canon_1700000000").size();
    std::string second;
    const auto takeWholeSecond = [&](const std::string& path) {
        second = second.empty() ? path.substr(0, length) : second;
        if (path.substr(0, length) == second) {
            std::ofstream(std::filesystem::u8path(path)) << "theirs";
        }
        return true;
    };
    const NewPicture picture = newPicture(m_folder.path(), "Canon", ".JPG", takeWholeSecond);
    EXPECT_NE(picture.file, nullptr);
    EXPECT_NE(picture.path.substr(0, length), second);
}

TEST_F(NewPictureTest, IsMadeTenThousandTimes)
{
    for (int i = 0; i < 10'000; ++i) {
        ASSERT_NE(newPicture(m_folder.path(), "Canon", ".JPG", always).file, nullptr);
    }
    EXPECT_EQ(m_folder.size(), 10'000);
}

}  // namespace
