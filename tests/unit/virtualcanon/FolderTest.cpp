// Pictures of the user's own, as Canon's library hands them over.
#include <filesystem>
#include <fstream>

#include "Support.h"
#include "TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kRaw = 0x0064FF0F;
constexpr std::uint32_t kRawAndJpeg = 0x00640013;

using Names = std::vector<std::string>;

class CanonPictureFolder : public OpenTest
{
protected:
    // A file whose bytes are its own name, and bytes that text would not survive.
    Bytes put(const std::string& name) const
    {
        Bytes bytes(name.begin(), name.end());
        bytes.insert(bytes.end(), {0, '\r', '\n', 0xFF, 0x1A});
        std::ofstream(m_folder.path(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }

    void use() const { configure("picture.folder = " + m_folder.path()); }

    static std::string nameOf(int file)
    {
        std::string name(300, '\0');
        name.resize(static_cast<std::size_t>(VirtualCameraPictureName(file, name.data(), 300)));
        return name;
    }

    // Takes a picture and answers the names of the files that it made.
    Names take() const
    {
        const int before = VirtualCameraPictureCount();
        EXPECT_EQ(VirtualCameraPressShutter(0), 1);
        EXPECT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
        Names names;
        for (int file = before; file < VirtualCameraPictureCount(); ++file) {
            names.push_back(nameOf(file));
        }
        return names;
    }

    TemporaryFolder m_folder;
};

TEST_F(CanonPictureFolder, FileReachesTheHostUnchangedUnderItsName)
{
    const Bytes bytes = put("holiday.jpg");
    use();
    const EdsDirectoryItemRef item = m_host.picture();
    EdsDirectoryItemInfo info{};
    ASSERT_EQ(EdsGetDirectoryItemInfo(item, &info), 0U);
    EXPECT_STREQ(info.szFileName, "holiday.jpg");
    EXPECT_EQ(info.size, bytes.size());
    const TemporaryFolder target;
    ASSERT_EQ(download(item, target.path("got")), 0U);
    EXPECT_EQ(fileBytes(target.path("got")), bytes);
    EXPECT_EQ(pictureBytes(0), bytes);
    EdsRelease(item);
}

TEST_F(CanonPictureFolder, FilesOfOneStemAreOneShot)
{
    put("1.JPG");
    put("1.cr2");
    put("2.CR3");
    put("2.JPG");
    ASSERT_EQ(m_host.set(0x100, kRawAndJpeg), 0U);
    use();
    EXPECT_EQ(take(), (Names{"1.cr2", "1.JPG"}));
    EXPECT_EQ(VirtualCameraPictureValue(0, "shot"), VirtualCameraPictureValue(1, "shot"));
    EXPECT_EQ(take(), (Names{"2.CR3", "2.JPG"}));
}

TEST_F(CanonPictureFolder, QualityChoosesFromAPair)
{
    put("1.CR2");
    put("1.JPG");
    use();
    EXPECT_EQ(take(), Names{"1.JPG"});
    ASSERT_EQ(m_host.set(0x100, kRaw), 0U);
    EXPECT_EQ(take(), Names{"1.CR2"});
}

TEST_F(CanonPictureFolder, ShotWithoutTheWholePairIsDeliveredAsItIs)
{
    put("1.JPG");
    ASSERT_EQ(m_host.set(0x100, kRawAndJpeg), 0U);
    use();
    EXPECT_EQ(take(), Names{"1.JPG"});
}

TEST_F(CanonPictureFolder, AChosenNameGoesBeforeTheFilesOwn)
{
    put("1.jpg");
    use();
    configure("picture.name = chosen.jpg");
    EXPECT_EQ(take(), Names{"chosen.jpg"});
}

TEST_F(CanonPictureFolder, OfLargeFilesDoesNotFillTheMemory)
{
    for (const char* name : {"1.jpg", "2.jpg"}) {
        put(name);
        fs::resize_file(m_folder.path(name), 150U * 1024 * 1024);
    }
    use();
    EdsRelease(m_host.picture());
    EXPECT_GT(VirtualCameraPictureBytes(0, nullptr, 0), 0);
    EdsRelease(m_host.picture());
    EXPECT_EQ(VirtualCameraPictureBytes(0, nullptr, 0), -1);
    EXPECT_GT(VirtualCameraPictureBytes(1, nullptr, 0), 0);
}

}  // namespace
