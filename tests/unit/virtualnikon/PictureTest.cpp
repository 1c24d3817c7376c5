// Pictures: from the shutter to the last byte, the items that stand for them, sizes and times.
#include <chrono>

#include "Host.h"

namespace {

class NikonPicture : public NikonOpenTest
{
protected:
    std::vector<std::uint32_t> items() const { return m_host.children(m_host.source()); }
};

TEST_F(NikonPicture, ACaptureIsFetchedByteForByte)
{
    const std::uint32_t item = picture();
    const Outcome outcome = m_host.fetch(item);
    EXPECT_EQ(outcome.result, kMaidPending);
    EXPECT_EQ(outcome.completion, kMaidOk);
    EXPECT_EQ(m_host.received.kind, kMaidDataFile | kMaidDataImage);
    EXPECT_EQ(m_host.received.fileType, kMaidFileJpeg);
    EXPECT_EQ(m_host.received.removeFlag, 1U);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(0));
    EXPECT_EQ(m_host.received.total, m_host.received.bytes.size());
    EXPECT_EQ(m_host.received.bytes[0], 0xFF);
    EXPECT_EQ(m_host.received.bytes[1], 0xD8);
    EXPECT_EQ(driver().pictureValue(0, "delivered"), 1);
    EXPECT_EQ(driver().pictureValue(0, "origin"), 0);
}

TEST_F(NikonPicture, AFetchedItemIsNotListedAnyMore)
{
    const std::uint32_t item = picture();
    EXPECT_EQ(items(), std::vector<std::uint32_t>{item});
    m_host.fetch(item);
    EXPECT_TRUE(items().empty());
    EXPECT_EQ(driver().pictureValue(0, "listed"), 0);
}

TEST_F(NikonPicture, AFetchedItemStaysListedWhenTold)
{
    configure("items.remove = 0");
    const std::uint32_t item = picture();
    m_host.fetch(item);
    EXPECT_EQ(m_host.received.removeFlag, 0U);
    EXPECT_EQ(items(), std::vector<std::uint32_t>{item});
    m_host.fetch(item);
    EXPECT_EQ(driver().pictureValue(0, "delivered"), 2);
}

TEST_F(NikonPicture, TheRemovalOfAFetchedItemIsToldWhenAsked)
{
    configure("items.remove = 2");
    const std::uint32_t item = picture();
    m_host.fetch(item);
    Host::async(m_host.source());
    EXPECT_EQ(m_host.parameters(kMaidEventRemoveChild), std::vector<std::uint64_t>{item});
}

TEST_F(NikonPicture, TheBodysButtonMakesAnItemThatIsAnnounced)
{
    ASSERT_TRUE(driver().pressShutter(0));
    ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
    EXPECT_TRUE(m_host.events.empty());
    Host::async(m_host.module());
    EXPECT_EQ(m_host.parameters(kMaidEventAddChild), std::vector<std::uint64_t>{1});
    EXPECT_EQ(m_host.events.front().object, m_host.source());
    EXPECT_EQ(driver().pictureValue(0, "origin"), 1);
    EXPECT_EQ(driver().pictureValue(0, "announced"), 1);
    m_host.fetch(1);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(0));
}

TEST_F(NikonPicture, RawAndJpegAreTwoItemsOfOneShot)
{
    configure("value.0x8110 = 6");
    picture();
    ASSERT_EQ(items().size(), 2U);
    EXPECT_EQ(driver().pictureValue(0, "shot"), driver().pictureValue(1, "shot"));
    m_host.fetch(items()[0]);
    EXPECT_EQ(m_host.received.fileType, kMaidFileNef);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(0));
    m_host.fetch(items()[0]);
    EXPECT_EQ(m_host.received.fileType, kMaidFileJpeg);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(1));
}

TEST_F(NikonPicture, ANefIsATiffWithAPreviewInside)
{
    configure("value.0x8110 = 3");
    m_host.fetch(picture());
    const Bytes& file = m_host.received.bytes;
    ASSERT_GT(file.size(), 1000U);
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 4), (Bytes{'I', 'I', 42, 0}));
    EXPECT_EQ(Bytes(file.begin() + 8, file.begin() + 12), (Bytes{0, 0, 0, 0}));
    const Bytes start{0xFF, 0xD8, 0xFF};
    EXPECT_NE(std::search(file.begin(), file.end(), start.begin(), start.end()), file.end());
}

TEST_F(NikonPicture, DirectSunlightIsDaylightInExif)
{
    configure("value.0x8118 = 3");
    m_host.fetch(picture());
    const Bytes& file = m_host.received.bytes;
    const Bytes lightSource{0x08, 0x92, 3, 0, 1, 0, 0, 0, 1, 0};
    EXPECT_NE(std::search(file.begin(), file.end(), lightSource.begin(), lightSource.end()),
              file.end());
}

TEST_F(NikonPicture, FullSizeHas45MillionPixels)
{
    if (kIsSanitized) {
        GTEST_SKIP() << "takes half a minute with a sanitizer; smaller pictures run the same code";
    }
    configure("transfer.per_call = 1000\npicture.full_size = 1\nvalue.0x8110 = 2");
    m_host.fetch(picture());
    const Bytes& file = m_host.received.bytes;
    const Bytes frame{0xFF, 0xC0, 0, 17, 8, 5504 / 256, 5504 % 256, 8256 / 256, 8256 % 256};
    EXPECT_NE(std::search(file.begin(), file.end(), frame.begin(), frame.end()), file.end());
    // The finest quality has small blocks, and so more of them between two restart markers.
    const Bytes interval{0xFF, 0xDD, 0, 4, 8256 / 8 * 16 / 256, 8256 / 8 * 16 % 256};
    EXPECT_NE(std::search(file.begin(), file.end(), interval.begin(), interval.end()), file.end());
}

TEST_F(NikonPicture, RowsOfAnImageComeWithoutAFile)
{
    configure(
        "picture.file_type = -1\npicture.width = 64\npicture.height = 33\n"
        "transfer.chunk = 1000");
    m_host.fetch(picture());
    EXPECT_EQ(m_host.received.kind, kMaidDataImage);
    EXPECT_EQ(m_host.received.total, 33U);
    EXPECT_EQ(m_host.received.rowBytes, 128U);
    EXPECT_EQ(m_host.received.lengths, (std::vector<std::uint32_t>{7, 7, 7, 7, 5}));
    EXPECT_EQ(m_host.received.removeFlag, 1U);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(0));
    EXPECT_EQ(driver().pictureValue(0, "rows"), 33);
    EXPECT_EQ(driver().pictureValue(0, "row_bytes"), 128);
}

TEST_F(NikonPicture, AnyFileTypeCanBeTold)
{
    for (const int type : {2, 257, 3}) {
        configure("picture.file_type = " + std::to_string(type));
        m_host.fetch(picture());
        EXPECT_EQ(m_host.received.fileType, static_cast<std::uint32_t>(type));
    }
}

TEST_F(NikonPicture, SizesAreMetToTheByte)
{
    for (const int size : {1000, 1001, 250000, 60000000}) {
        configure("transfer.per_call = 1000\npicture.size = " + std::to_string(size));
        m_host.fetch(picture());
        EXPECT_EQ(m_host.received.bytes.size(), static_cast<std::size_t>(size));
        EXPECT_EQ(m_host.received.total, static_cast<std::uint32_t>(size));
    }
}

TEST_F(NikonPicture, RowsAreAsManyAsFitTheSize)
{
    configure("picture.file_type = -1\npicture.raw_size = 100000\npicture.width = 100");
    m_host.fetch(picture());
    EXPECT_EQ(m_host.received.total, 500U);
    EXPECT_EQ(m_host.received.bytes.size(), 100000U);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(0));
}

TEST_F(NikonPicture, PartsHaveTheSizeThatIsSet)
{
    configure("picture.size = 10000\ntransfer.chunk = 4096");
    m_host.fetch(picture());
    EXPECT_EQ(m_host.received.lengths, (std::vector<std::uint32_t>{4096, 4096, 1808}));
}

TEST_F(NikonPicture, AsManyPartsComeInACallAsAreSet)
{
    configure("picture.size = 10000\ntransfer.chunk = 1000\ntransfer.per_call = 3");
    const std::uint32_t item = picture();
    const int before = driver().callCount("Async");
    m_host.fetch(item);
    EXPECT_EQ(driver().callCount("Async") - before, 4);
}

TEST_F(NikonPicture, AllPartsComeInsideTheStartWhenTold)
{
    configure("transfer.chunk = 1000\ntransfer.per_call = 0");
    const std::uint32_t item = picture();
    const int before = driver().callCount("Async");
    const Outcome outcome = m_host.fetch(item);
    EXPECT_TRUE(outcome.isGood());
    EXPECT_EQ(driver().callCount("Async"), before);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(0));
}

TEST_F(NikonPicture, TheTransferTakesAsLongAsItsRateSays)
{
    configure("picture.size = 100000\ntransfer.chunk = 10000\ntransfer.rate = 1");
    const std::uint32_t item = picture();
    const auto start = std::chrono::steady_clock::now();
    m_host.fetch(item);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(NikonPicture, TheShutterTakesAsLongAsItsLagSays)
{
    configure("shutter.lag_ms = 80");
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = m_host.shoot();
    EXPECT_EQ(outcome.result, kMaidPending);
    EXPECT_EQ(outcome.completion, kMaidOk);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(80));
    EXPECT_EQ(driver().pictureCount(), 1);
}

TEST_F(NikonPicture, ACaptureDuringAnExposureIsRefusedAsBusy)
{
    configure("shutter.lag_ms = 3600000");
    ASSERT_TRUE(driver().pressShutter(0));
    EXPECT_EQ(driver().pressShutter(0), 0);
    const Outcome outcome = m_host.shoot();
    EXPECT_EQ(outcome.result, -9);
    EXPECT_EQ(outcome.completion, -9);
}

TEST_F(NikonPicture, ARefusedPartEndsTheTransferAndTheItemStays)
{
    configure("picture.size = 5000\ntransfer.chunk = 1000");
    const std::uint32_t item = picture();
    m_host.inDataProcedure = [&] {
        return m_host.received.lengths.size() == 2 ? kMaidFileFailed : kMaidOk;
    };
    const Outcome outcome = m_host.fetch(item);
    EXPECT_EQ(outcome.completion, kMaidFileFailed);
    EXPECT_EQ(m_host.received.lengths.size(), 2U);
    EXPECT_EQ(driver().pictureValue(0, "delivered"), 0);
    EXPECT_EQ(items(), std::vector<std::uint32_t>{item});
}

TEST_F(NikonPicture, ProgressGoesFromNothingToTheTotal)
{
    configure("picture.size = 3000\ntransfer.chunk = 1000");
    m_host.fetch(picture());
    std::vector<std::uint32_t> done;
    for (const Host::Progress& progress : m_host.progress) {
        EXPECT_EQ(progress.command, kMaidCommandCapStart);
        EXPECT_EQ(progress.parameter, kMaidCapAcquire);
        EXPECT_EQ(progress.total, 3000U);
        done.push_back(progress.done);
    }
    EXPECT_EQ(done, (std::vector<std::uint32_t>{0, 1000, 2000, 3000}));
}

TEST_F(NikonPicture, ATestPutsItemsOfAnyKindThere)
{
    const Bytes content = pattern(5000);
    EXPECT_EQ(driver().addItem(0, kMaidItemMovie, 99, 0, content.data(), 5000), 0);
    EXPECT_EQ(driver().addItem(0, kMaidItemImage, kMaidFileTiff, 0, content.data(), 5000), 1);
    EXPECT_EQ(driver().addItem(0, kMaidItemImage, -1, 64, content.data(), 5000), 2);
    MaidObject* movie = m_host.openChild(m_host.source(), 1);
    EXPECT_EQ(m_host.number(movie, kMaidCapDataTypes), kMaidItemMovie);
    EXPECT_EQ(m_host.children(movie), std::vector<std::uint32_t>{kMaidItemMovie});
    EXPECT_EQ(m_host.openChild(movie, kMaidItemImage), nullptr);
    EXPECT_NE(takeMisuses().find("no child 1"), std::string::npos);
    m_host.fetch(2);
    EXPECT_EQ(m_host.received.bytes, content);
    EXPECT_EQ(m_host.received.fileType, kMaidFileTiff);
    m_host.fetch(3);
    EXPECT_EQ(m_host.received.total, 78U);
    EXPECT_EQ(m_host.received.bytes, pattern(std::size_t{78} * 64));
}

TEST_F(NikonPicture, PicturesHaveAThumbnailWhenTold)
{
    configure("items.thumbnails = 1");
    const std::uint32_t item = picture();
    m_host.fetch(item, kMaidItemThumbnail);
    EXPECT_EQ(m_host.received.kind, 0x18U);
    EXPECT_EQ(m_host.received.bytes[0], 0xFF);
    EXPECT_EQ(items(), std::vector<std::uint32_t>{item});
}

TEST_F(NikonPicture, ItemsAreListedInTheOrderThatIsSet)
{
    picture();
    picture();
    configure("items.newest_first = 1");
    m_host.shoot();
    EXPECT_EQ(items(), (std::vector<std::uint32_t>{3, 1, 2}));
}

TEST_F(NikonPicture, SettingsShowInTheNameAndList)
{
    picture();
    char text[1000];
    driver().pictureList(text, sizeof text);
    const std::string list = text;
    EXPECT_EQ(list.find("shot=1 camera=0 origin=host name=DSC_0001.JPG size="), 0U) << list;
    EXPECT_NE(list.find(" type=1 "), std::string::npos) << list;
    driver().pictureName(0, text, sizeof text);
    EXPECT_STREQ(text, "DSC_0001.JPG");
    EXPECT_EQ(driver().pictureValue(0, "nonsense"), -1);
    EXPECT_EQ(driver().pictureValue(5, "size"), -1);
}

TEST_F(NikonPicture, OldBytesAreForgottenButNotWhileThePictureIsListed)
{
    configure("picture.keep = 1");
    picture();
    m_host.fetch(picture());
    m_host.fetch(picture());
    picture();
    EXPECT_GE(driver().pictureBytes(0, nullptr, 0), 0);
    EXPECT_EQ(driver().pictureBytes(1, nullptr, 0), -1);
    EXPECT_GE(driver().pictureBytes(2, nullptr, 0), 0);
    EXPECT_EQ(items(), (std::vector<std::uint32_t>{1, 4}));
}

}  // namespace
