// How a picture's parts become a file in the export folder.
#include "nikon/DataReceiver.h"

#include <gtest/gtest.h>

#include <limits>

#include "TemporaryFolder.h"
#include "TetherTexts.h"
#include "fakes/Records.h"
#include "platform/Platform.h"

using fake::Part;
using nikon::DataReceiver;
using Results = std::vector<std::string>;

namespace {

class DataReceiverTest : public testing::Test
{
protected:
    void SetUp() override { g_szExportFolder.set(m_folder.path().c_str()); }

    // What this thread has written is not for the next test.
    void TearDown() override { g_szLastFile.take(); }

    MaidResult take(const Part& part) { return take(part, part.data.data()); }

    MaidResult take(const Part& part, const void* data)
    {
        return m_receiver.take(part.info.data(), data);
    }

    // The only file there is, and its bytes.
    std::string onlyFile() const
    {
        EXPECT_EQ(m_receiver.results().size(), 1U);
        EXPECT_EQ(m_folder.size(), 1);
        return m_receiver.results().empty() ? "" : m_receiver.results().front();
    }

    // The extension of the file that a whole file of that type becomes.
    static std::string extensionOf(std::uint32_t fileType)
    {
        DataReceiver receiver(1, std::make_shared<nikon::ModuleHeartbeat>());
        const Part part = fake::wholeFile("abc", fileType);
        EXPECT_EQ(receiver.take(part.info.data(), part.data.data()), kMaidOk);
        const Results results = receiver.results();
        return results.empty() ? "" : results.front().substr(results.front().rfind('.'));
    }

    TemporaryFolder m_folder;
    DataReceiver m_receiver{7, std::make_shared<nikon::ModuleHeartbeat>()};
};

// Files.

TEST_F(DataReceiverTest, ASinglePartIsWrittenAtOnce)
{
    EXPECT_EQ(take(fake::wholeFile("picture")), kMaidOk);
    EXPECT_EQ(contentOf(onlyFile()), "picture");
    EXPECT_EQ(m_receiver.itemId(), 7);
}

TEST_F(DataReceiverTest, PartsThatSumExactlyToTheTotalMakeOneFile)
{
    EXPECT_EQ(take(fake::filePart("abc", 8)), kMaidOk);
    EXPECT_EQ(take(fake::filePart("def", 8)), kMaidOk);
    EXPECT_EQ(m_folder.size(), 0);
    EXPECT_EQ(take(fake::filePart("gh", 8)), kMaidOk);
    EXPECT_EQ(contentOf(onlyFile()), "abcdefgh");
}

TEST_F(DataReceiverTest, APictureOfSeveralMegabytesIsWrittenByteForByte)
{
    std::string content(3'000'005, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i % 251);
    }
    EXPECT_EQ(take(fake::wholeFile(content)), kMaidOk);
    EXPECT_TRUE(contentOf(onlyFile()) == content);
}

TEST_F(DataReceiverTest, AFileIsNamedAfterItsFolderVendorSecondNumberAndType)
{
    take(fake::wholeFile("a"));
    const std::string path = onlyFile();
    EXPECT_EQ(path.substr(0, m_folder.path().size() + 1),
              m_folder.path() + platform::kPathSeparator);
    // Every run of digits is shown as one number sign.
    std::string shape;
    for (const char letter : path.substr(m_folder.path().size() + 1)) {
        const bool isDigit = letter >= '0' && letter <= '9';
        if (!isDigit || shape.back() != '#') {
            shape += isDigit ? '#' : letter;
        }
    }
    EXPECT_EQ(shape, "Nikon_#_#.jpg");
}

TEST_F(DataReceiverTest, TheExtensionFollowsTheFileType)
{
    EXPECT_EQ(extensionOf(1), ".jpg");
    EXPECT_EQ(extensionOf(2), ".tif");
    EXPECT_EQ(extensionOf(4), ".nef");
    EXPECT_EQ(extensionOf(257), ".ndf");
    EXPECT_EQ(extensionOf(3), ".dat");
    EXPECT_EQ(extensionOf(0), ".dat");
    EXPECT_EQ(extensionOf(0xFFFFFFFF), ".dat");
}

TEST_F(DataReceiverTest, TwoPicturesInTheSameSecondHaveDifferentNames)
{
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(take(fake::wholeFile("abc")), kMaidOk);
    }
    EXPECT_EQ(m_folder.size(), 50);
}

TEST_F(DataReceiverTest, ASecondFileInOneAcquisitionIsAFileOfItsOwn)
{
    EXPECT_EQ(take(fake::wholeFile("jpeg", kMaidFileJpeg)), kMaidOk);
    EXPECT_EQ(take(fake::wholeFile("nef", kMaidFileNef)), kMaidOk);
    ASSERT_EQ(m_receiver.results().size(), 2U);
    EXPECT_EQ(contentOf(m_receiver.results()[0]), "jpeg");
    EXPECT_EQ(contentOf(m_receiver.results()[1]), "nef");
}

TEST_F(DataReceiverTest, AFolderWithAQuoteAndOtherLettersIsTakenAsItIs)
{
    const std::string folder = m_folder.makeFolder("Bob's ü写真");
    g_szExportFolder.set(folder.c_str());
    take(fake::wholeFile("abc"));
    EXPECT_EQ(m_receiver.results().at(0).rfind(folder + platform::kPathSeparator + "Nikon_", 0),
              0U);
    EXPECT_EQ(contentOf(m_receiver.results().at(0)), "abc");
}

TEST_F(DataReceiverTest, TheLastFileIsTheOneThatWasWritten)
{
    take(fake::wholeFile("abc"));
    EXPECT_EQ(g_szLastFile.take(), onlyFile());
}

// Files that cannot be written.

TEST_F(DataReceiverTest, InAFolderThatDoesNotExistNothingIsWrittenAndNothingNoted)
{
    g_szLastFile.clear();
    g_szLastFile.take();
    g_szExportFolder.set("/not there");
    EXPECT_EQ(take(fake::filePart("abc", 6)), kMaidOk);
    EXPECT_EQ(take(fake::filePart("def", 6)), kMaidFileFailed);
    EXPECT_EQ(m_receiver.results(), Results{});
    EXPECT_EQ(g_szLastFile.take(), "");
    // The buffer is still there: the part may be delivered again.
    g_szExportFolder.set(m_folder.path().c_str());
    EXPECT_EQ(take(fake::filePart("def", 6)), kMaidOk);
    EXPECT_EQ(contentOf(onlyFile()), "abcdef");
}

TEST_F(DataReceiverTest, ATotalOf0IsAFailedWrite)
{
    EXPECT_EQ(take(fake::wholeFile("")), kMaidOk);
    EXPECT_EQ(m_receiver.results(), Results{"error"});
    EXPECT_EQ(m_folder.size(), 0);
    EXPECT_EQ(g_szLastFile.take(), "error");
}

TEST_F(DataReceiverTest, WithoutAFolderNoPathIsFormedAndThePictureNotTakenOver)
{
    g_szExportFolder.set("");
    EXPECT_EQ(take(fake::filePart("abc", 6)), kMaidOk);
    EXPECT_EQ(take(fake::filePart("def", 6)), kMaidFileFailed);
    EXPECT_EQ(m_receiver.results(), Results{"error"});
    EXPECT_EQ(g_szLastFile.take(), "error");
    g_szExportFolder.set(m_folder.path().c_str());
    EXPECT_EQ(take(fake::filePart("def", 6)), kMaidOk);
    EXPECT_EQ(contentOf(m_receiver.results().back()), "abcdef");
}

// Sizes that do not add up.

TEST_F(DataReceiverTest, APartThatWouldPassTheEndIsRefusedBeforeAnythingIsCopied)
{
    EXPECT_EQ(take(fake::filePart("abc", 6)), kMaidOk);
    EXPECT_EQ(take(fake::filePart("defg", 6)), kMaidOutOfMemory);
    EXPECT_EQ(take(fake::filePart("def", 6)), kMaidOk);
    EXPECT_EQ(contentOf(onlyFile()), "abcdef");
    DataReceiver other(1, std::make_shared<nikon::ModuleHeartbeat>());
    const Part tooLong = fake::filePart("abcdef", 5);
    EXPECT_EQ(other.take(tooLong.info.data(), tooLong.data.data()), kMaidOutOfMemory);
}

TEST_F(DataReceiverTest, ATotalThatChangesOnTheWayIsRefused)
{
    EXPECT_EQ(take(fake::filePart("abc", 6)), kMaidOk);
    EXPECT_EQ(take(fake::filePart("def", 7)), kMaidFileFailed);
    EXPECT_EQ(take(fake::filePart("def", 3)), kMaidFileFailed);
    EXPECT_EQ(take(fake::imagePart("def", 3, 2)), kMaidFileFailed);
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DataReceiverTest, AnOffsetNearFourGigabytesDoesNotOverflow)
{
    const auto most = std::numeric_limits<std::uint32_t>::max();
    Part part = fake::filePart("abc", most);
    EXPECT_EQ(take(part), kMaidOk);
    MaidFileInfo info = {};
    std::memcpy(&info, part.info.data(), sizeof info);
    info.length = most;  // with the offset more than 32 bits
    part.info = fake::bytesOf(info);
    EXPECT_EQ(take(part), kMaidOutOfMemory);
    info.length = most - 2;
    part.info = fake::bytesOf(info);
    EXPECT_EQ(take(part), kMaidOutOfMemory);
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DataReceiverTest, PartsWithoutBytesChangeNothing)
{
    EXPECT_EQ(take(fake::filePart("", 3)), kMaidOk);
    EXPECT_EQ(take(fake::filePart("", 3), nullptr), kMaidOk);
    EXPECT_EQ(take(fake::filePart("abc", 3), nullptr), kMaidFileFailed);
    EXPECT_EQ(take(fake::filePart("abc", 3)), kMaidOk);
    EXPECT_EQ(contentOf(onlyFile()), "abc");
}

TEST_F(DataReceiverTest, APartWithoutADescriptionIsRefused)
{
    EXPECT_EQ(m_receiver.take(nullptr, "abc"), kMaidFileFailed);
}

TEST_F(DataReceiverTest, ADescriptionMayLieAnywhere)
{
    const Part part = fake::wholeFile("abc");
    fake::Bytes shifted(part.info.size() + 1);
    std::memcpy(shifted.data() + 1, part.info.data(), part.info.size());
    EXPECT_EQ(m_receiver.take(shifted.data() + 1, part.data.data()), kMaidOk);
    EXPECT_EQ(contentOf(onlyFile()), "abc");
}

// Images.

TEST_F(DataReceiverTest, RowsOfAnImageMakeARawFile)
{
    EXPECT_EQ(take(fake::imagePart("aaaabbbb", 4, 3)), kMaidOk);
    EXPECT_EQ(take(fake::imagePart("cccc", 4, 3)), kMaidOk);
    const std::string path = onlyFile();
    EXPECT_EQ(path.substr(path.rfind('.')), ".raw");
    EXPECT_EQ(contentOf(path), "aaaabbbbcccc");
}

TEST_F(DataReceiverTest, AnEmptyImageIsAnEmptyFile)
{
    EXPECT_EQ(take(fake::imagePart("", 0, 0)), kMaidOk);
    EXPECT_EQ(contentOf(onlyFile()), "");
}

TEST_F(DataReceiverTest, MoreRowsThanAnnouncedAreRefused)
{
    EXPECT_EQ(take(fake::imagePart("aaaabbbb", 4, 3)), kMaidOk);
    EXPECT_EQ(take(fake::imagePart("ccccdddd", 4, 3)), kMaidOutOfMemory);
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(DataReceiverTest, AnImageThatHasNoRoomInMemoryIsRefused)
{
    MaidImageInfo info = {};
    info.totalRows = 0xFFFFFFFF;
    info.rowBytes = 0xFFFFFFFF;
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_receiver.take(&info, "abc"), kMaidOutOfMemory);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "There is not enough memory.\n");
}

// The removal of the item.

TEST_F(DataReceiverTest, AnItemMayBeRemovedWhenItsWholeImageWasWrittenAndTheModuleSaysSo)
{
    take(fake::filePart("abc", 6, kMaidFileJpeg, true));
    EXPECT_FALSE(m_receiver.mayRemoveItem());
    take(fake::filePart("def", 6, kMaidFileJpeg, true));
    EXPECT_TRUE(m_receiver.mayRemoveItem());
}

TEST_F(DataReceiverTest, AnImageInRowsMayBeRemovedToo)
{
    take(fake::imagePart("aaaa", 4, 1, true));
    EXPECT_TRUE(m_receiver.mayRemoveItem());
}

TEST_F(DataReceiverTest, WithoutTheModulesWordOrForAnotherKindTheItemStays)
{
    take(fake::wholeFile("abc"));
    EXPECT_FALSE(m_receiver.mayRemoveItem());
    Part part = fake::wholeFile("abc", kMaidFileJpeg, true);
    part.info[0] = kMaidDataFile;  // no image
    take(part);
    EXPECT_FALSE(m_receiver.mayRemoveItem());
}

TEST_F(DataReceiverTest, AnItemWhoseWriteFailedStays)
{
    take(fake::wholeFile("", kMaidFileJpeg, true));
    EXPECT_EQ(m_receiver.results(), Results{"error"});
    EXPECT_FALSE(m_receiver.mayRemoveItem());
}

// The procedure.

TEST_F(DataReceiverTest, DataForAnAcquisitionThatIsOverIsRefused)
{
    const auto receiver =
        std::make_shared<DataReceiver>(1, std::make_shared<nikon::ModuleHeartbeat>());
    MaidReference handle = nikon::receivers().add(receiver);
    const Part part = fake::wholeFile("abc");
    EXPECT_EQ(nikon::receiveData(handle, part.info.data(), part.data.data()), kMaidOk);
    nikon::receivers().remove(handle);
    EXPECT_EQ(nikon::receiveData(handle, part.info.data(), part.data.data()), kMaidFileFailed);
    EXPECT_EQ(nikon::receiveData(nullptr, part.info.data(), part.data.data()), kMaidFileFailed);
    EXPECT_EQ(m_folder.size(), 1);
}

}  // namespace
