// Pictures of the user's own, whatever the maker: a folder of files that the camera delivers in
// turn.
#include <filesystem>
#include <fstream>

#include "TemporaryFolder.h"
#include "virtualcamera/Application.h"
#include "virtualcamera/Decoded.h"

namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;

class SteeredFolder : public SteeredSessionTest
{
protected:
    fs::path at(const std::string& name) const
    {
        return fs::u8path(m_folder.path()) / fs::u8path(name);
    }

    // A file whose bytes are its own name.
    void put(const std::string& name) const { std::ofstream(at(name), std::ios::binary) << name; }

    void use() const { configure("picture.folder = " + m_folder.path()); }

    static std::string nameOf(int picture)
    {
        std::string name(300, '\0');
        name.resize(static_cast<std::size_t>(steered().pictureName(picture, name.data(), 300)));
        return name;
    }

    // Takes a picture and answers the names of the files that it made.
    Names take(int camera = 0)
    {
        const int before = steered().pictureCount();
        EXPECT_EQ(steered().pressShutter(camera), 1);
        awaitIdle();
        Names names;
        for (int picture = before; picture < steered().pictureCount(); ++picture) {
            names.push_back(nameOf(picture));
        }
        return names;
    }

    static std::string reason() { return steeredText(steered().lastError); }

    TemporaryFolder m_folder;
};

TEST_F(SteeredFolder, IsDeliveredInTheOrderOfItsNamesAndThenAnew)
{
    put("B.jpg");
    put("a.JPEG");
    put("IMG_0010.JPG");
    use();
    for (const char* name : {"B.jpg", "IMG_0010.JPG", "a.JPEG", "B.jpg", "IMG_0010.JPG"}) {
        EXPECT_EQ(take(), Names{name});
    }
}

TEST_F(SteeredFolder, ShotWithoutTheQualityIsDeliveredAsItIs)
{
    put("1.JPG");
    put("2.CR2");
    put("3.NEF");
    use();
    EXPECT_EQ(take(), Names{"1.JPG"});
    EXPECT_EQ(take(), Names{"2.CR2"});
    EXPECT_EQ(take(), Names{"3.NEF"});
}

TEST_F(SteeredFolder, OtherFilesHiddenOnesAndFoldersDoNotCount)
{
    for (const char* name : {"1.txt", "2", "3.jpg.bak", "._4.jpg", ".jpg"}) {
        put(name);
    }
    fs::create_directories(at("5.jpg"));
    fs::create_directories(at("100CANON"));
    put("100CANON/6.jpg");
    put("7.jpg");
    use();
    EXPECT_EQ(take(), Names{"7.jpg"});
    EXPECT_EQ(take(), Names{"7.jpg"});
}

TEST_F(SteeredFolder, ThatIsMissingOrHasNoPictureIsRefusedAndTheOldOneStays)
{
    put("1.jpg");
    use();
    const TemporaryFolder empty;
    const std::string missing = m_folder.path() + "/missing";
    EXPECT_EQ(steered().configure(("log.lines = 5\npicture.folder = " + missing).c_str()), 2);
    EXPECT_EQ(reason().find("picture.folder: " + missing + ": "), 0U) << reason();
    EXPECT_EQ(steered().configure(("picture.folder = " + empty.path()).c_str()), 1);
    EXPECT_EQ(reason(), "picture.folder: there is no picture in " + empty.path());
    EXPECT_EQ(steered().configure(("picture.folder = " + m_folder.path() + "/1.jpg").c_str()), 1);
    EXPECT_EQ(take(), Names{"1.jpg"});
}

TEST_F(SteeredFolder, LeavesOutWhatVanishesAndTakesInWhatComes)
{
    put("1.jpg");
    put("2.jpg");
    put("4.jpg");
    use();
    EXPECT_EQ(take(), Names{"1.jpg"});
    fs::remove(at("1.jpg"));
    fs::remove(at("2.jpg"));
    put("3.jpg");
    EXPECT_EQ(take(), Names{"3.jpg"});
    EXPECT_EQ(take(), Names{"4.jpg"});
    EXPECT_EQ(take(), Names{"3.jpg"});
}

TEST_F(SteeredFolder, ThatHasNoPictureAnyMoreMakesNone)
{
    put("1.jpg");
    use();
    fs::remove(at("1.jpg"));
    EXPECT_EQ(take(), Names{});
    EXPECT_NE(callLog().find("picture.folder: no picture any more in " + m_folder.path()),
              std::string::npos);
    put("2.jpg");
    EXPECT_EQ(take(), Names{"2.jpg"});
}

TEST_F(SteeredFolder, IsDeliveredByEachCameraFromItsFirstFileOn)
{
    put("1.jpg");
    put("2.jpg");
    put("3.jpg");
    configure("[camera 1]");
    use();
    EXPECT_EQ(take(0), Names{"1.jpg"});
    EXPECT_EQ(take(1), Names{"1.jpg"});
    EXPECT_EQ(take(0), Names{"2.jpg"});
    use();
    EXPECT_EQ(take(0), Names{"1.jpg"});
}

TEST_F(SteeredFolder, OfNoNameGivesTheCameraItsOwnPicturesBack)
{
    const auto beginning = [](const Names& names) {
        return names.empty() ? std::string() : names.front().substr(0, 4);
    };
    const std::string own = beginning(take());
    EXPECT_EQ(own.size(), 4U);
    put("1.jpg");
    use();
    EXPECT_EQ(take(), Names{"1.jpg"});
    configure("picture.folder =");
    EXPECT_EQ(beginning(take()), own);
    use();
    steered().reset();
    EXPECT_EQ(beginning(take()), own);
}

TEST_F(SteeredFolder, AndItsFilesMayHaveAnyName)
{
    const fs::path folder = at("Bilder für 写真 #1");
    fs::create_directory(folder);
    std::ofstream(folder / fs::u8path("Größe = 写真.jpg")) << "x";
    configure("picture.folder = " + folder.u8string());
    EXPECT_EQ(take(), Names{"Größe = 写真.jpg"});
    Bytes bytes(2);
    EXPECT_EQ(steered().pictureBytes(0, bytes.data(), 2), 1);
    EXPECT_EQ(bytes.front(), 'x');
}

}  // namespace
