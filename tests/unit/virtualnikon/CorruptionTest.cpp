// Corruption of lists, descriptors and the parts of pictures.
#include <algorithm>
#include <cstring>
#include <numeric>

#include "Host.h"

namespace {

class NikonCorruption : public NikonOpenTest
{
protected:
    List shutter() const { return m_host.list(m_host.source(), kMaidCapShutterSpeed); }
};

TEST_F(NikonCorruption, AListClaimsNothing)
{
    driver().corrupt(2, kMaidCapShutterSpeed, "count", 0);
    EXPECT_EQ(shutter().record.elements, 0U);
    EXPECT_TRUE(shutter().array.empty());
}

TEST_F(NikonCorruption, AListClaimsAMillion)
{
    driver().corrupt(2, kMaidCapShutterSpeed, "count", 1000000);
    const List list = shutter();
    ASSERT_EQ(list.array.size(), 1000000U);
    EXPECT_EQ(list.texts().front(), "Bulb");
    driver().corrupt(2, kMaidCapExposureMode, "count", 1000000);
    const List modes = m_host.list(m_host.source(), kMaidCapExposureMode);
    EXPECT_EQ(modes.array.size(), 4000000U);
    EXPECT_EQ(modes.numbers()[11], 0U);
}

TEST_F(NikonCorruption, TheChildrenClaimAMillion)
{
    driver().corrupt(1, kMaidCapChildren, "count", 1000000);
    EXPECT_EQ(m_host.children(m_host.module()), std::vector<std::uint32_t>(1000000, 1));
    driver().corrupt(2, kMaidCapChildren, "count", 3);
    EXPECT_EQ(m_host.children(m_host.source()), (std::vector<std::uint32_t>{0, 0, 0}));
    EXPECT_EQ(m_host.openChild(m_host.source(), 4711), nullptr);
}

TEST_F(NikonCorruption, DescriptorsClaimNothingOrAHundredThousand)
{
    driver().corrupt(2, 0xFFFFFFFF, "count", 0);
    EXPECT_TRUE(m_host.capabilities(m_host.source()).empty());
    driver().corrupt(2, 0xFFFFFFFF, "count", 100000);
    const std::vector<MaidCapInfo> all = m_host.capabilities(m_host.source());
    ASSERT_EQ(all.size(), 100000U);
    EXPECT_EQ(all[0].id, all[13].id);
}

TEST_F(NikonCorruption, TextsHaveNoEnd)
{
    driver().corrupt(2, kMaidCapShutterSpeed, "open_texts", 1);
    EXPECT_EQ(shutter().array.back(), 'x');
    driver().corrupt(2, kMaidCapShutterSpeed, "open_texts", 2);
    const Bytes array = shutter().array;
    EXPECT_EQ(std::count(array.begin(), array.end(), 0), 0);
}

TEST_F(NikonCorruption, ElementSizeTypeAndPositionAreCorrupt)
{
    driver().corrupt(2, kMaidCapShutterSpeed, "element_size", 8);
    const List list = shutter();
    EXPECT_EQ(list.record.elementSize, 8);
    EXPECT_EQ(list.array.size(), std::size_t{list.record.elements} * 8);
    for (const int size : {0, -1, -32768}) {
        driver().corrupt(2, kMaidCapShutterSpeed, "element_size", size);
        EXPECT_EQ(shutter().record.elementSize, size);
    }
    driver().corrupt(2, kMaidCapAperture, "element_type", 8);
    EXPECT_EQ(m_host.list(m_host.source(), kMaidCapAperture).record.elementType, 8U);
    driver().corrupt(2, kMaidCapAperture, "value", 0xFFFFFFFF);
    EXPECT_EQ(m_host.list(m_host.source(), kMaidCapAperture).record.value, 0xFFFFFFFFU);
    driver().corrupt(2, kMaidCapLiveness, "value", 77);
    EXPECT_EQ(m_host.number(m_host.source(), kMaidCapLiveness), 77U);
}

TEST_F(NikonCorruption, ADescriptionHasNoTerminator)
{
    driver().corrupt(2, kMaidCapShutterSpeed, "unterminated", 1);
    const MaidCapInfo info = m_host.capability(m_host.source(), kMaidCapShutterSpeed);
    EXPECT_EQ(std::memchr(info.description, 0, sizeof info.description), nullptr);
    EXPECT_EQ(std::string(info.description, 14), "Shutter Speedx");
}

TEST_F(NikonCorruption, DescriptorsAreToldDifferentlyAndThatIsAnnounced)
{
    ASSERT_TRUE(driver().setDescription(2, kMaidCapShutterSpeed, "shutter SPEED"));
    EXPECT_STREQ(m_host.capability(m_host.source(), kMaidCapShutterSpeed).description,
                 "shutter SPEED");
    driver().corrupt(2, kMaidCapShutterSpeed, "type", 3);
    EXPECT_EQ(m_host.capability(m_host.source(), kMaidCapShutterSpeed).type, 3U);
    driver().corrupt(2, kMaidCapShutterSpeed, "operations", 2);
    EXPECT_EQ(m_host.capability(m_host.source(), kMaidCapShutterSpeed).operations, 2U);
    driver().corrupt(1, kMaidCapModuleMode, "absent", 1);
    EXPECT_EQ(m_host.capability(m_host.module(), kMaidCapModuleMode).id, 0U);
    Host::async(m_host.source());
    EXPECT_EQ(m_host.parameters(kMaidEventCapChange).size(), 4U);
    driver().clearCorruption();
    EXPECT_EQ(m_host.capability(m_host.module(), kMaidCapModuleMode).id, kMaidCapModuleMode);
    EXPECT_STREQ(m_host.capability(m_host.source(), kMaidCapShutterSpeed).description,
                 "Shutter Speed");
}

TEST_F(NikonCorruption, UnknownCorruptionIsRefused)
{
    EXPECT_EQ(driver().corrupt(2, kMaidCapAperture, "nonsense", 1), 0);
    EXPECT_EQ(driver().corrupt(7, kMaidCapAperture, "count", 1), 0);
    EXPECT_EQ(driver().setDescription(0, kMaidCapAperture, "x"), 0);
}

class NikonBadData : public NikonCorruption
{
protected:
    void SetUp() override
    {
        NikonCorruption::SetUp();
        configure("picture.size = 5000\ntransfer.chunk = 2000\nitems.remove = 0");
        m_item = picture();
    }

    Outcome fetchWith(const std::string& settings)
    {
        configure(settings);
        return m_host.fetch(m_item);
    }
    std::uint32_t sum() const
    {
        const auto& lengths = m_host.received.lengths;
        return std::accumulate(lengths.begin(), lengths.end(), 0U);
    }

    std::uint32_t m_item = 0;
};

TEST_F(NikonBadData, TheTotalIsTooSmallOrTooLarge)
{
    fetchWith("data.total_delta = -1000");
    EXPECT_EQ(m_host.received.total, 4000U);
    EXPECT_EQ(sum(), 5000U);
    fetchWith("data.total_delta = 1000");
    EXPECT_EQ(m_host.received.total, 6000U);
    fetchWith("data.total_delta = 0\ndata.total = 0");
    EXPECT_EQ(m_host.received.total, 0U);
    fetchWith("data.total = 0xFFFFFFFF");
    EXPECT_EQ(m_host.received.total, 0xFFFFFFFFU);
    EXPECT_EQ(m_host.received.bytes, pictureBytes(0));
}

TEST_F(NikonBadData, PartsClaimMoreOrLessThanTheyHave)
{
    fetchWith("data.length_delta = 500");
    EXPECT_EQ(m_host.received.lengths, (std::vector<std::uint32_t>{2500, 2500, 1500}));
    fetchWith("data.length_delta = -1500");
    EXPECT_EQ(m_host.received.lengths, (std::vector<std::uint32_t>{500, 500, 0}));
    fetchWith("data.length_delta = 4294967295");
    EXPECT_EQ(m_host.received.bytes.size(), sum());
}

TEST_F(NikonBadData, PartsComeTwiceAreMissingOrComeAfterTheEnd)
{
    fetchWith("data.repeat = 1");
    EXPECT_EQ(m_host.received.lengths,
              (std::vector<std::uint32_t>{2000, 2000, 2000, 2000, 1000, 1000}));
    fetchWith("data.repeat = 0\ndata.missing = 1");
    EXPECT_EQ(m_host.received.lengths, (std::vector<std::uint32_t>{2000, 2000}));
    fetchWith("data.missing = 1000");
    EXPECT_TRUE(m_host.received.lengths.empty());
    fetchWith("data.missing = 0\ndata.extra = 2\ndata.empty = 1");
    EXPECT_EQ(m_host.received.lengths,
              (std::vector<std::uint32_t>{0, 2000, 2000, 1000, 1000, 1000}));
}

TEST_F(NikonBadData, ARefusedPartIsFollowedByTheNextWhenTold)
{
    m_host.inDataProcedure = [] { return kMaidOutOfMemory; };
    EXPECT_EQ(fetchWith("").completion, kMaidOutOfMemory);
    EXPECT_EQ(m_host.received.lengths.size(), 1U);
    EXPECT_EQ(fetchWith("data.go_on = 1").completion, kMaidOk);
    EXPECT_EQ(m_host.received.lengths.size(), 3U);
}

TEST_F(NikonBadData, KindFileTypeAndRemoveFlagAreCorrupt)
{
    fetchWith("data.kind = 0x18\ndata.file_type = 4711\ndata.remove_flag = 1");
    EXPECT_EQ(m_host.received.kind, 0x18U);
    EXPECT_EQ(m_host.received.fileType, 4711U);
    EXPECT_EQ(m_host.received.removeFlag, 1U);
    fetchWith("data.kind = 1\ndata.row_bytes = 3");
    EXPECT_EQ(m_host.received.rowBytes, 3U);
    EXPECT_EQ(m_host.received.total, 5000U);
}

TEST_F(NikonBadData, PartsHaveNoBytesToRead)
{
    fetchWith("data.null = 1");
    EXPECT_EQ(m_host.received.lengths, (std::vector<std::uint32_t>{2000, 2000, 1000}));
    EXPECT_TRUE(m_host.received.bytes.empty());
}

TEST_F(NikonBadData, ProgressHasATotalOfNothing)
{
    m_host.progress.clear();
    fetchWith("progress.total = 0");
    ASSERT_EQ(m_host.progress.size(), 4U);
    for (const Host::Progress& progress : m_host.progress) {
        EXPECT_EQ(progress.total, 0U);
    }
    configure("progress.total = -1\nprogress.calls = 2");
    m_host.progress.clear();
    m_host.shoot();
    ASSERT_GE(m_host.progress.size(), 1U);
    EXPECT_EQ(m_host.progress[0].parameter, kMaidCapCapture);
    EXPECT_EQ(m_host.progress[0].total, 0U);
}

TEST_F(NikonBadData, RowsClaimMoreThanTheyHave)
{
    driver().clearCorruption();
    configure(
        "picture.file_type = -1\npicture.raw_size = 1000\npicture.width = 50\n"
        "transfer.chunk = 500");
    const std::uint32_t item = picture();
    configure("data.length_delta = 2\ndata.row_bytes = 200\ndata.total = 3");
    m_host.fetch(item);
    EXPECT_EQ(m_host.received.lengths, (std::vector<std::uint32_t>{7, 7}));
    EXPECT_EQ(m_host.received.rowBytes, 200U);
    EXPECT_EQ(m_host.received.total, 3U);
}

}  // namespace
