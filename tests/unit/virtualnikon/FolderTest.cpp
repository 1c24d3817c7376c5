// Pictures of the user's own, as Nikon's driver module hands them over.
#include <filesystem>
#include <fstream>

#include "Host.h"
#include "TemporaryFolder.h"

namespace {

constexpr const char* kRaw = "value.0x8110 = 3";
constexpr const char* kRawAndJpeg = "value.0x8110 = 6";

using Names = std::vector<std::string>;

class NikonPictureFolder : public NikonOpenTest
{
protected:
    std::filesystem::path at(const std::string& name) const
    {
        return std::filesystem::u8path(m_folder.path()) / name;
    }

    // A file whose bytes are its own name.
    void put(const std::string& name) const { std::ofstream(at(name)) << name; }

    void use() const { configure("picture.folder = " + m_folder.path()); }

    // Takes a picture and answers the names of the files that it made.
    Names take() const
    {
        const int before = driver().pictureCount();
        EXPECT_EQ(m_host.shoot().completion, kMaidOk);
        Names names;
        for (int picture = before; picture < driver().pictureCount(); ++picture) {
            char name[100];
            driver().pictureName(picture, name, sizeof name);
            names.emplace_back(name);
        }
        return names;
    }

    TemporaryFolder m_folder;
};

TEST_F(NikonPictureFolder, FileReachesTheHostUnchangedWithItsType)
{
    const std::vector<std::pair<std::string, std::uint32_t>> types{
        {"1.JPG", kMaidFileJpeg}, {"2.tif", kMaidFileTiff}, {"3.NEF", kMaidFileNef}};
    for (const auto& [name, type] : types) {
        put(name);
    }
    configure("picture.size = 5000\npicture.raw_size = 5000");
    use();
    for (const auto& [name, type] : types) {
        m_host.fetch(picture());
        EXPECT_EQ(m_host.received.fileType, type) << name;
        EXPECT_EQ(m_host.received.bytes, Bytes(name.begin(), name.end()));
    }
}

TEST_F(NikonPictureFolder, FilesOfOneStemAreOneShotOfWhichTheQualityChooses)
{
    put("1.JPG");
    put("1.NEF");
    use();
    EXPECT_EQ(take(), Names{"1.JPG"});
    configure(kRaw);
    EXPECT_EQ(take(), Names{"1.NEF"});
    configure(kRawAndJpeg);
    EXPECT_EQ(take(), (Names{"1.NEF", "1.JPG"}));
    EXPECT_EQ(driver().pictureValue(2, "shot"), driver().pictureValue(3, "shot"));
}

TEST_F(NikonPictureFolder, FileTypeCanBeToldButNotRows)
{
    put("1.jpg");
    use();
    configure("picture.file_type = 257");
    m_host.fetch(picture());
    EXPECT_EQ(m_host.received.fileType, kMaidFileNdf);
    configure("picture.file_type = -1");
    m_host.fetch(picture());
    EXPECT_EQ(m_host.received.kind, kMaidDataFile | kMaidDataImage);
    EXPECT_EQ(m_host.received.fileType, kMaidFileJpeg);
}

}  // namespace
