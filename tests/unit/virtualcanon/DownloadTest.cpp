// Streams and downloads.
#include <chrono>
#include <filesystem>
#include <thread>

#include "Support.h"
#include "TemporaryFolder.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct Progress {
    std::vector<std::uint32_t> percents;
    int cancelAt = -1;

    static EdsError EDSAPI note(std::uint32_t percent, void* context, std::int32_t* cancel)
    {
        auto* self = static_cast<Progress*>(context);
        self->percents.push_back(percent);
        *cancel = static_cast<int>(percent) == self->cancelAt ? 1 : 0;
        return 0;
    }
};

class Download : public OpenTest
{
protected:
    TemporaryFolder m_folder;
    Progress m_progress;
};

TEST_F(Download, BringsTheExactBytes)
{
    const EdsDirectoryItemRef item = m_host.picture();
    const std::string path = m_folder.path("picture.jpg");
    EXPECT_EQ(download(item, path), 0U);
    EXPECT_EQ(EdsRelease(item), 0U);
    EXPECT_EQ(fileBytes(path), pictureBytes(0));
    EXPECT_EQ(VirtualCameraPictureValue(0, "downloaded"), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "complete"), 1);
}

TEST_F(Download, ReportsProgressFrom0To100)
{
    const EdsDirectoryItemRef item = m_host.picture();
    EXPECT_EQ(download(item, m_folder.path("a"), Progress::note, &m_progress), 0U);
    EXPECT_EQ(m_progress.percents.size(), 21U);
    EXPECT_EQ(m_progress.percents.front(), 0U);
    EXPECT_EQ(m_progress.percents[1], 5U);
    EXPECT_EQ(m_progress.percents.back(), 100U);
    EdsRelease(item);
}

TEST_F(Download, CanBeCancelled)
{
    m_progress.cancelAt = 50;
    const EdsDirectoryItemRef item = m_host.picture();
    EXPECT_EQ(download(item, m_folder.path("a"), Progress::note, &m_progress), 0x05U);
    EXPECT_EQ(m_progress.percents.back(), 50U);
    EXPECT_EQ(VirtualCameraPictureValue(0, "downloaded"), 0);
    EdsRelease(item);
}

TEST_F(Download, KeepsTheTransferRate)
{
    configure("picture.size = 300000\ntransfer.rate = 1.5");
    const EdsDirectoryItemRef item = m_host.picture();
    const auto start = steady_clock::now();
    EXPECT_EQ(download(item, m_folder.path("a")), 0U);
    EXPECT_GE(steady_clock::now() - start, milliseconds(200));
    EdsRelease(item);
}

TEST_F(Download, InPiecesGoesOnWhereItStopped)
{
    const EdsDirectoryItemRef item = m_host.picture();
    const Bytes whole = pictureBytes(0);
    EdsStreamRef stream = nullptr;
    ASSERT_EQ(EdsCreateMemoryStream(0, &stream), 0U);
    EXPECT_EQ(EdsDownload(item, 1000, stream), 0U);
    EXPECT_EQ(VirtualCameraPictureValue(0, "downloaded"), 0);
    EXPECT_EQ(EdsDownload(item, whole.size() - 1000, stream), 0U);
    EXPECT_EQ(VirtualCameraPictureValue(0, "downloaded"), 1);
    Bytes copy(whole.size());
    EXPECT_EQ(VirtualCanonStreamBytes(stream, copy.data(), static_cast<int>(copy.size())),
              static_cast<std::int64_t>(whole.size()));
    EXPECT_EQ(copy, whole);
    EdsRelease(stream);
    EdsRelease(item);
}

TEST_F(Download, MissingFolderIsAnErrorOfTheStream)
{
    EdsStreamRef stream = nullptr;
    EXPECT_EQ(EdsCreateFileStream(m_folder.path("no/such/a").c_str(), 1, 2, &stream), 0x22U);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(EdsCreateFileStream(m_folder.path().c_str(), 1, 2, &stream), 0x23U);
    EXPECT_EQ(EdsCreateFileStream("", 1, 2, &stream), 0x22U);
    EXPECT_EQ(EdsCreateFileStream("x", 9, 2, &stream), 0x60U);
}

TEST_F(Download, DispositionsAreKept)
{
    const std::string path = m_folder.path("a");
    EdsStreamRef stream = nullptr;
    EXPECT_EQ(EdsCreateFileStream(path.c_str(), 2, 2, &stream), 0x22U);
    EXPECT_EQ(EdsCreateFileStream(path.c_str(), 4, 2, &stream), 0x22U);
    ASSERT_EQ(EdsCreateFileStream(path.c_str(), 0, 2, &stream), 0U);
    EdsRelease(stream);
    EXPECT_EQ(EdsCreateFileStream(path.c_str(), 0, 2, &stream), 0x2BU);
    for (const std::uint32_t disposition : {1U, 2U, 3U, 4U}) {
        ASSERT_EQ(EdsCreateFileStream(path.c_str(), disposition, 2, &stream), 0U);
        EdsRelease(stream);
    }
}

TEST_F(Download, AFileMayHaveAnyNameThatTheCLibraryTakes)
{
    // Of these bytes Windows' code page makes letters that have other numbers in Unicode.
    const EdsDirectoryItemRef item = m_host.picture();
    EXPECT_EQ(download(item, m_folder.path("a.\xE5\x86\x99")), 0U);
    EdsRelease(item);
}

TEST_F(Download, FullDiskEndsItWithAShortFile)
{
    configure("transfer.disk_full_after = 10000");
    const EdsDirectoryItemRef item = m_host.picture();
    const std::string path = m_folder.path("a");
    EXPECT_EQ(download(item, path), 0x2AU);
    EXPECT_EQ(std::filesystem::file_size(path), 10000U);
    EdsRelease(item);
}

#ifdef __linux__
TEST_F(Download, ErrorsOfTheSystemComeBack)
{
    const EdsDirectoryItemRef item = m_host.picture();
    EXPECT_EQ(download(item, "/dev/full"), 0x2AU);
    EdsRelease(item);
}
#endif

#ifndef _WIN32
TEST_F(Download, FolderRemovedMeanwhileIsNoticed)
{
    ASSERT_EQ(VirtualCameraFault("EdsDownload hang percent=50"), 1);
    const EdsDirectoryItemRef item = m_host.picture();
    EdsError answer = 0;
    std::thread downloader([&] { answer = download(item, m_folder.path("a")); });
    ASSERT_EQ(VirtualCameraWaitForHang("EdsDownload", kDeadlineMs), 1);
    std::filesystem::remove_all(m_folder.path());
    EXPECT_EQ(VirtualCameraReleaseHangs(), 1);
    downloader.join();
    EXPECT_EQ(answer, 0x22U);
    EdsRelease(item);
}
#endif

TEST_F(Download, UnpluggedInTheMiddleEndsIt)
{
    ASSERT_EQ(VirtualCameraFault("EdsDownload unplug percent=50"), 1);
    const EdsDirectoryItemRef item = m_host.picture();
    const std::string path = m_folder.path("a");
    EXPECT_EQ(download(item, path, Progress::note, &m_progress), 0x80U);
    EXPECT_EQ(m_progress.percents.back(), 45U);
    EXPECT_EQ(VirtualCameraWaitForEvents(0x301, 1, kDeadlineMs), 1);
    EXPECT_EQ(EdsRelease(item), 0U);
}

TEST_F(Download, FailsWithAnyCodeInTheMiddle)
{
    ASSERT_EQ(VirtualCameraFault("EdsDownload code=0xABC percent=30"), 1);
    const EdsDirectoryItemRef item = m_host.picture();
    EXPECT_EQ(download(item, m_folder.path("a"), Progress::note, &m_progress), 0xABCU);
    EXPECT_EQ(m_progress.percents.back(), 25U);
    EXPECT_EQ(download(item, m_folder.path("a")), 0U);
    EdsRelease(item);
}

TEST_F(Download, MoreThanTheFileIsMisuse)
{
    const EdsDirectoryItemRef item = m_host.picture();
    EdsStreamRef stream = nullptr;
    ASSERT_EQ(EdsCreateMemoryStream(0, &stream), 0U);
    EXPECT_EQ(EdsDownload(item, 1U << 30U, stream), 0x60U);
    EXPECT_NE(takeMisuses().find("EdsDownload: size 1073741824 is more"), std::string::npos);
    EdsRelease(stream);
    EdsRelease(item);
}

TEST_F(Download, FolderItemCannotBeDownloaded)
{
    auto* folder = static_cast<EdsDirectoryItemRef>(VirtualCanonNewItem(0, -1));
    EdsDirectoryItemInfo info{};
    ASSERT_EQ(EdsGetDirectoryItemInfo(folder, &info), 0U);
    EXPECT_EQ(info.isFolder, 1);
    EXPECT_EQ(EdsDownloadComplete(folder), 0x60U);
    EdsRelease(folder);
}

}  // namespace
