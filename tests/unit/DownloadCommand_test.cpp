// A picture on its way into the export folder: its path, its bytes, what is announced, and what is
// left behind when something fails.
#include "canon/DownloadCommand.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <set>

#include "CanonTestSupport.h"
#include "TetherTexts.h"
#include "platform/Platform.h"

using canon::DownloadCommand;

namespace fs = std::filesystem;

namespace {

// Keeps what it was told, and the last file's text when a picture was complete.
class DownloadObserver final : public canon::Observer
{
public:
    void update(canon::Observable* /*from*/, const canon::CameraEvent& event) override
    {
        if (event.name == "ProgressReport") {
            percents.push_back(*static_cast<const std::uint32_t*>(event.arg));
            return;
        }
        names.push_back(event.name);
        if (event.name == "DownloadComplete") {
            completion = *static_cast<const std::uint32_t*>(event.arg);
            lastFile = g_szLastFile.take();
        }
        if (event.name == "DownloadStart") {
            EXPECT_EQ(event.arg, nullptr);
        }
        if (event.name == "error") {
            code = *static_cast<const std::uint32_t*>(event.arg);
        }
    }

    Lines names;  // of all events but the progress reports
    std::vector<std::uint32_t> percents;
    std::uint32_t completion = 0xFFFFFFFF;
    std::uint32_t code = 0;
    std::string lastFile;
};

const Lines kStartAndComplete = {"DownloadStart", "DownloadComplete"};
const Lines kComplete = {"DownloadComplete"};
const Lines kStartAndError = {"DownloadStart", "error"};

// The parts of a path "<folder>/Canon_<seconds>_<number><extension>".
struct PathParts {
    long long seconds = 0;
    long long number = 0;
    std::string extension;
};

// Nothing when the text is no such path.
std::optional<PathParts> partsOf(const std::string& path, const std::string& folder)
{
    const std::string start = folder + platform::kPathSeparator + "Canon_";
    if (path.compare(0, start.size(), start) != 0) {
        return std::nullopt;
    }
    PathParts parts;
    char separator = '\0';
    std::istringstream rest(path.substr(start.size()));
    rest >> parts.seconds >> separator >> parts.number;
    if (!rest || separator != '_') {
        return std::nullopt;
    }
    std::getline(rest, parts.extension);
    return parts;
}

// There is one small picture on the camera, and a folder to write it into.
class DownloadCommandTest : public OpenSessionTest
{
protected:
    void SetUp() override
    {
        OpenSessionTest::SetUp();
        g_szExportFolder.set(m_folder.path().c_str());
        g_szLastFile.take();
        m_model->addObserver(&told);
        configure("picture.width = 64\npicture.height = 48");
        takePicture();
    }

    void TearDown() override
    {
        g_szExportFolder.set("");
        g_szLastFile.take();
        OpenSessionTest::TearDown();
    }

    // Makes a picture whose file has the name `name`; an empty one is the camera's choice.
    void takePicture(const std::string& name = "")
    {
        VirtualCanonSetPictureName(0, name.data(), static_cast<int>(name.size()));
        const int before = VirtualCameraPictureCount();
        ASSERT_EQ(VirtualCameraPressShutter(0), 1) << textOf(VirtualCameraLastError);
        ASSERT_EQ(VirtualCameraWaitForPictures(before + 1, 5000), 1);
        ASSERT_TRUE(waitFor(isIdle));
        m_file = before;
        VirtualCameraClearLog();
    }

    EdsDirectoryItemRef item() const
    {
        return static_cast<EdsDirectoryItemRef>(VirtualCanonNewItem(0, m_file));
    }

    // Downloads the last picture taken; every download is over after one attempt.
    void download() { download(item()); }
    void download(EdsDirectoryItemRef reference)
    {
        EXPECT_TRUE(DownloadCommand(model(), reference).execute());
        EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
        EXPECT_EQ(VirtualCanonReferenceCount("stream"), 0);
    }

    // The extension that a picture named `name` gets, dot included.
    std::string extensionFor(const std::string& name)
    {
        takePicture(name);
        download();
        const auto parts = partsOf(told.lastFile, m_folder.path());
        return parts ? parts->extension : "no path: " + told.lastFile;
    }

    bool isPath(const std::string& text) const
    {
        return partsOf(text, m_folder.path()).has_value();
    }

    TemporaryFolder m_folder;
    DownloadObserver told;
    int m_file = 0;
};

// Paths.

TEST_F(DownloadCommandTest, ThePathIsFolderSeparatorCanonTimeNumberAndExtension)
{
    const std::time_t before = std::time(nullptr);
    download();
    const auto parts = partsOf(told.lastFile, m_folder.path());
    ASSERT_TRUE(parts) << told.lastFile;
    EXPECT_GE(parts->seconds, before);
    EXPECT_LE(parts->seconds, std::time(nullptr));
    EXPECT_GE(parts->number, 0);
    EXPECT_EQ(parts->extension, ".JPG");
}

TEST_F(DownloadCommandTest, TheFileHoldsThePicturesBytes)
{
    download();
    EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(DownloadCommandTest, ALibraryWhoseRecordsAreLongerDeliversItsPicture)
{
    configure("records.extra = 256");
    download();
    EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
}

TEST_F(DownloadCommandTest, TheExtensionKeepsItsCase)
{
    EXPECT_EQ(extensionFor("IMG_0001.jPg"), ".jPg");
    EXPECT_EQ(extensionFor("IMG_0001.CR2"), ".CR2");
}

TEST_F(DownloadCommandTest, ANameWithoutExtensionGivesAPathThatEndsInTheNumber)
{
    EXPECT_EQ(extensionFor("IMG_0001"), "");
}

TEST_F(DownloadCommandTest, OnlyTheLastExtensionOfTheLastComponentCounts)
{
    EXPECT_EQ(extensionFor("IMG.0001.JPG"), ".JPG");
    EXPECT_EQ(extensionFor(".hidden"), ".hidden");
    EXPECT_EQ(extensionFor("IMG."), ".");
    EXPECT_EQ(extensionFor("DCIM/100.CANON/IMG_0001.CR3"), ".CR3");
    EXPECT_EQ(extensionFor("DCIM/100.CANON/IMG_0001"), "");
    EXPECT_EQ(extensionFor("DCIM\\100.CANON\\IMG_0001"), "");
}

TEST_F(DownloadCommandTest, ANameCannotLeadOutOfTheFolder)
{
    EXPECT_EQ(extensionFor("x.a/../../../etc/passwd"), "");
    EXPECT_EQ(extensionFor("/etc/passwd"), "");
    EXPECT_EQ(extensionFor(".."), ".");
    EXPECT_EQ(m_folder.size(), 3);
}

TEST_F(DownloadCommandTest, ANameOf255CharactersGivesItsExtension)
{
    EXPECT_EQ(extensionFor(std::string(251, 'n') + ".JPG"), ".JPG");
}

TEST_F(DownloadCommandTest, ANameWithoutTerminatorEndsWithItsField)
{
    EXPECT_EQ(extensionFor(std::string(252, 'n') + ".JPG"), ".JPG");
    EXPECT_EQ(extensionFor(std::string(256, 'n')), "");
}

TEST_F(DownloadCommandTest, TheFolderIsUsedAsItStands)
{
    const std::string folder =
        m_folder.makeFolder("it's \xC3\xBC \xE5\x86\x99") + platform::kPathSeparator;
    g_szExportFolder.set(folder.c_str());
    download();
    EXPECT_EQ(told.lastFile.rfind(folder + platform::kPathSeparator + "Canon_", 0), 0U);
    EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
}

TEST_F(DownloadCommandTest, PicturesOfOneSecondGetDifferentPaths)
{
    std::set<std::string> paths;
    for (int i = 0; i < 50; ++i) {
        download();
        paths.insert(told.lastFile);
    }
    EXPECT_EQ(paths.size(), 50U);
    EXPECT_EQ(m_folder.size(), 50);
}

TEST_F(DownloadCommandTest, AFolderThatIsChangedCountsForTheNextPicture)
{
    download();
    const std::string other = m_folder.makeFolder("other");
    g_szExportFolder.set(other.c_str());
    download();
    EXPECT_EQ(fs::path(told.lastFile).parent_path(), other);
}

// What the folder leaves of 255 bytes: the rest of the name takes 19 to 28.

TEST_F(DownloadCommandTest, AnExtensionThatLeaves28BytesToTheNameAlwaysFits)
{
    const std::string extension = "." + std::string(255 - 28 - m_folder.path().size() - 1, 'e');
    EXPECT_EQ(extensionFor(extension), extension);
}

using DownloadCommandDeathTest = DownloadCommandTest;

TEST_F(DownloadCommandDeathTest, AnExtensionThatLeaves18BytesToTheNameEndsTheProcess)
{
    const std::string extension = "." + std::string(255 - 18 - m_folder.path().size() - 1, 'e');
    takePicture(extension);
    EXPECT_EXIT(download(), testing::ExitedWithCode(3), "^Lumatie: .*; the process ends\\.\n$");
}

TEST_F(DownloadCommandDeathTest, APathThatIsTooLongEndsTheProcess)
{
    takePicture("." + std::string(254, 'e'));
    EXPECT_EXIT(download(), testing::ExitedWithCode(3), "^Lumatie: .*; the process ends\\.\n$");
}

TEST_F(DownloadCommandDeathTest, AFolderThatLeavesNoRoomForANameEndsTheProcess)
{
    g_szExportFolder.set(std::string(255, 'd').c_str());
    EXPECT_EXIT(download(), testing::ExitedWithCode(3), "^Lumatie: .*; the process ends\\.\n$");
}

// What is announced.

TEST_F(DownloadCommandTest, TheCallsComeInTheirOrder)
{
    download();
    const std::string size = std::to_string(VirtualCameraPictureValue(m_file, "size"));
    EXPECT_EQ(
        callsAndResults(),
        (Lines{"EdsGetDirectoryItemInfo(item) = 0x0",
               "EdsCreateFileStream(\"" + told.lastFile + "\", 1, 2) = 0x0",
               "EdsSetProgressCallback(stream, 2) = 0x0",
               "EdsDownload(item, " + size + ", stream) = 0x0", "EdsDownloadComplete(item) = 0x0",
               "EdsRelease(item) = 0x0", "EdsRelease(stream) = 0x0"}));
    EXPECT_EQ(VirtualCameraPictureValue(m_file, "downloaded"), 1);
    EXPECT_EQ(VirtualCameraPictureValue(m_file, "complete"), 1);
}

TEST_F(DownloadCommandTest, StartProgressAndCompletionAreAnnouncedInThisOrder)
{
    configure("transfer.steps = 2");
    download();
    EXPECT_EQ(events(), (Lines{"DownloadStart", "ProgressReport 0", "ProgressReport 32",
                               "ProgressReport 64", "DownloadComplete 0"}));
}

TEST_F(DownloadCommandTest, TheCompletionComesAfterTheReferencesWereGivenBack)
{
    class Counting final : public canon::Observer
    {
    public:
        void update(canon::Observable* /*from*/, const canon::CameraEvent& event) override
        {
            if (event.name == "DownloadComplete") {
                references =
                    VirtualCanonReferenceCount("item") + VirtualCanonReferenceCount("stream");
            }
        }
        int references = -1;
    };
    Counting observer;
    model().addObserver(&observer);
    download();
    EXPECT_EQ(observer.references, 0);
}

TEST_F(DownloadCommandTest, TheNameIsTakenBeforeTheLibraryMakesItsStream)
{
    fault("EdsCreateFileStream hang");
    std::thread worker([&] { download(); });
    EXPECT_EQ(VirtualCameraWaitForHang("EdsCreateFileStream", 5000), 1);
    std::uintmax_t bytes = 1;
    for (const auto& entry : fs::directory_iterator(m_folder.path())) {
        bytes = entry.file_size();
    }
    EXPECT_EQ(bytes, 0U);
    EXPECT_EQ(m_folder.size(), 1);
    VirtualCameraReleaseHangs();
    worker.join();
    EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
    EXPECT_EQ(m_folder.size(), 1);
}

// Failures.

TEST_F(DownloadCommandTest, AFailedDownloadRemovesThePartialFileAndLeavesError)
{
    fault("EdsDownload code=0x2A percent=50");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(told.completion, 0U);
    EXPECT_EQ(told.lastFile, "error");
    EXPECT_EQ(m_folder.size(), 0);
    EXPECT_EQ(VirtualCameraPictureValue(m_file, "complete"), 1);
}

TEST_F(DownloadCommandTest, ABusyDownloadIsNotTriedAgain)
{
    fault("EdsDownload code=0x81");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(told.lastFile, "error");
}

TEST_F(DownloadCommandTest, AFullDiskIsAWriteFailure)
{
    configure("transfer.disk_full_after = 100");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(told.lastFile, "error");
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DownloadCommandTest, AFailedItemInformationStartsNothingButIsAnnouncedWithAPath)
{
    fault("EdsGetDirectoryItemInfo code=0x2");
    download();
    EXPECT_EQ(calls(), (Lines{"EdsGetDirectoryItemInfo(item)", "EdsRelease(item)"}));
    EXPECT_EQ(told.names, kComplete);
    EXPECT_TRUE(isPath(told.lastFile)) << told.lastFile;
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DownloadCommandTest, AFailedStreamCreationIsAnnouncedWithThePath)
{
    fault("EdsCreateFileStream code=0x23");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_TRUE(isPath(told.lastFile)) << told.lastFile;
    EXPECT_EQ(m_folder.size(), 0);
    EXPECT_EQ(calls("EdsDownload"), Lines{});
}

TEST_F(DownloadCommandTest, AFailedProgressCallbackIsAnnouncedWithThePath)
{
    fault("EdsSetProgressCallback code=0x60");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_TRUE(isPath(told.lastFile)) << told.lastFile;
    EXPECT_EQ(calls("EdsDownload"), Lines{});
}

TEST_F(DownloadCommandTest, AFailedProgressCallbackLeavesNoEmptyFile)
{
    fault("EdsSetProgressCallback code=0x60");
    download();
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DownloadCommandTest, AFailedDownloadCompleteIsCoveredByTheReleases)
{
    fault("EdsDownloadComplete code=0x2");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
}

TEST_F(DownloadCommandTest, AFailedStreamWhoseItemKeepsAReferenceIsAnError)
{
    fault("EdsCreateFileStream code=0x23");
    fault("EdsRelease code=2 after");
    download();
    EXPECT_EQ(told.names, kStartAndError);
    EXPECT_EQ(told.code, 2U);
}

TEST_F(DownloadCommandTest, AStreamThatKeepsAReferenceIsAnErrorWithTheirNumber)
{
    fault("EdsRelease code=3 after skip=1");
    download();
    EXPECT_EQ(told.names, kStartAndError);
    EXPECT_EQ(told.code, 3U);
}

TEST_F(DownloadCommandTest, OnlyTheLastReleaseCounts)
{
    fault("EdsRelease code=3 after");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
}

TEST_F(DownloadCommandTest, AFailedDownloadWithARemainingReferenceKeepsItsPartialFile)
{
    fault("EdsDownload code=0x2A percent=50");
    fault("EdsRelease code=1 after skip=1");
    download();
    EXPECT_EQ(told.names, kStartAndError);
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(DownloadCommandTest, ANullItemIsAnErrorAndReleasesNothing)
{
    download(nullptr);
    VirtualCameraClearMisuse();
    EXPECT_EQ(calls(), Lines{"EdsGetDirectoryItemInfo(null)"});
    EXPECT_EQ(told.names, Lines{"error"});
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DownloadCommandTest, AFolderOfTheCameraIsAWriteFailure)
{
    download(static_cast<EdsDirectoryItemRef>(VirtualCanonNewItem(0, -1)));
    VirtualCameraClearMisuse();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(told.lastFile, "error");
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DownloadCommandTest, APulledCableIsAWriteFailure)
{
    fault("EdsDownload unplug percent=50");
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(told.lastFile, "error");
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DownloadCommandTest, AnItemThatIsStaleIsAnError)
{
    EdsDirectoryItemRef stale = item();
    EdsRelease(stale);
    download(stale);
    VirtualCameraClearMisuse();
    EXPECT_EQ(told.names, Lines{"error"});
}

// Folders that are not there.

TEST_F(DownloadCommandTest, WithoutAFolderNoFileIsMadeAndItIsAWriteFailure)
{
    g_szExportFolder.set("");
    download();
    EXPECT_EQ(calls(), (Lines{"EdsGetDirectoryItemInfo(item)", "EdsRelease(item)"}));
    EXPECT_EQ(told.names, kComplete);
    EXPECT_EQ(told.lastFile, "error");
}

TEST_F(DownloadCommandTest, AFolderThatDoesNotExistIsNotMadeAndThePathIsAnnounced)
{
    fs::remove(m_folder.path());
    download();
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_TRUE(isPath(told.lastFile)) << told.lastFile;
    EXPECT_FALSE(fs::exists(m_folder.path()));
}

TEST_F(DownloadCommandTest, AFolderThatVanishesDuringTheDownloadIsAWriteFailure)
{
    fault("EdsDownload hang percent=50");
    std::thread worker([&] { download(); });
    EXPECT_EQ(VirtualCameraWaitForHang("EdsDownload", 5000), 1);
    std::error_code refused;
    fs::remove_all(m_folder.path(), refused);
    VirtualCameraReleaseHangs();
    worker.join();
    EXPECT_EQ(told.names, kStartAndComplete);
    if (refused) {
        // Windows keeps a folder while a file in it is open.
        EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
    } else {
        EXPECT_EQ(told.lastFile, "error");
    }
}

TEST_F(DownloadCommandTest, AFolderThatIsChangedDuringTheDownloadLeavesThePictureWhereItWasBegun)
{
    fault("EdsDownload hang percent=50");
    std::thread worker([&] { download(); });
    EXPECT_EQ(VirtualCameraWaitForHang("EdsDownload", 5000), 1);
    g_szExportFolder.set("/nonexistent");
    g_szLastFile.clear();
    VirtualCameraReleaseHangs();
    worker.join();
    EXPECT_EQ(contentOf(told.lastFile), pictureBytes(m_file));
}

// A folder that is named relative to the current one, which the host changes in the middle.

class MovingHostTest : public DownloadCommandTest
{
protected:
    void SetUp() override
    {
        DownloadCommandTest::SetUp();
        m_folder.makeFolder("before");
        m_pictures = m_folder.makeFolder("before/shots");
        m_folder.makeFolder("after");
        m_others = m_folder.makeFolder("after/shots");
        g_szExportFolder.set("shots");
        m_current = std::make_unique<CurrentFolder>(m_folder.path() + "/before");
    }

    void TearDown() override
    {
        m_current.reset();
        DownloadCommandTest::TearDown();
    }

    // The host moves while the library is in `function`, which then goes on.
    void downloadAndMoveDuring(const char* function)
    {
        std::thread worker([&] { download(); });
        EXPECT_EQ(VirtualCameraWaitForHang(function, 5000), 1);
        CurrentFolder::moveTo(m_folder.path() + "/after");
        VirtualCameraReleaseHangs();
        worker.join();
    }

    static Lines filesIn(const std::string& folder)
    {
        Lines files;
        for (const auto& entry : fs::directory_iterator(fs::u8path(folder))) {
            files.push_back(entry.path().filename().u8string());
        }
        return files;
    }

    std::unique_ptr<CurrentFolder> m_current;
    std::string m_pictures;
    std::string m_others;
};

TEST_F(MovingHostTest, ADownloadThatFailsAfterTheMoveLeavesNoPartialFile)
{
    fault("EdsDownload hang code=0x2A percent=50");
    downloadAndMoveDuring("EdsDownload");
    EXPECT_EQ(told.lastFile, "error");
    EXPECT_EQ(filesIn(m_pictures), Lines{});
}

TEST_F(MovingHostTest, ADownloadThatCannotBeginAfterTheMoveLeavesNoEmptyFile)
{
    fault("EdsSetProgressCallback hang code=0x60");
    downloadAndMoveDuring("EdsSetProgressCallback");
    EXPECT_EQ(told.names, kStartAndComplete);
    EXPECT_EQ(filesIn(m_pictures), Lines{});
}

TEST_F(MovingHostTest, AFileOfTheSameNameInTheNewFolderIsLeftAlone)
{
    fault("EdsDownload hang code=0x2A percent=50");
    std::thread worker([&] { download(); });
    EXPECT_EQ(VirtualCameraWaitForHang("EdsDownload", 5000), 1);
    const Lines written = filesIn(m_pictures);
    ASSERT_EQ(written.size(), 1U);
    std::ofstream(fs::u8path(m_others + "/" + written.front())) << "theirs";
    CurrentFolder::moveTo(m_folder.path() + "/after");
    VirtualCameraReleaseHangs();
    worker.join();
    EXPECT_EQ(filesIn(m_others), written);
}

TEST_F(MovingHostTest, APictureIsAnnouncedByTheTextThatItsFolderMakes)
{
    download();
    const std::string start = std::string("shots") + platform::kPathSeparator + "Canon_";
    EXPECT_EQ(told.lastFile.rfind(start, 0), 0U) << told.lastFile;
    EXPECT_TRUE(contentOf(m_folder.path() + "/before/" + told.lastFile) == pictureBytes(m_file));
}

TEST_F(DownloadCommandTest, AnUnexecutedCommandGivesItsItemBack)
{
    {
        const DownloadCommand command(model(), item());
        EXPECT_EQ(VirtualCanonReferenceCount("item"), 1);
    }
    EXPECT_EQ(calls(), Lines{"EdsRelease(item)"});
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
}

TEST_F(DownloadCommandTest, AnUnexecutedCommandWithoutItemReleasesNothing)
{
    {
        const DownloadCommand command(model(), nullptr);
    }
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(DownloadCommandTest, TheSamePictureCanBeFetchedTwice)
{
    download();
    const std::string first = told.lastFile;
    download();
    EXPECT_NE(told.lastFile, first);
    EXPECT_EQ(contentOf(told.lastFile), contentOf(first));
}

}  // namespace
