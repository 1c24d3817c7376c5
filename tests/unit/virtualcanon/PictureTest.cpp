// The picture files: that they are pictures, what is in them, and how large they are.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "Support.h"

namespace {

std::size_t find(const Bytes& file, const std::string& text)
{
    const auto at = std::search(file.begin(), file.end(), text.begin(), text.end());
    return at == file.end() ? std::string::npos : static_cast<std::size_t>(at - file.begin());
}

bool contains(const Bytes& file, const std::string& text)
{
    return find(file, text) != std::string::npos;
}

// A little-endian TIFF as readers see it.
class TiffReader
{
public:
    explicit TiffReader(const Bytes& file) : m_file(file) {}

    bool isTiff() const { return m_file.size() > 8 && read(0, 4) == 0x002A4949; }
    std::uint32_t first() const { return read(4, 4); }
    std::uint32_t after(std::uint32_t directory) const
    {
        return read(directory + 2 + entries(directory) * 12, 4);
    }

    // A number of one value, or the offset of a longer one; -1 when the tag is missing.
    std::int64_t value(std::uint32_t directory, std::uint32_t tag) const
    {
        for (std::uint32_t i = 0; i < entries(directory); ++i) {
            const std::uint32_t entry = directory + 2 + i * 12;
            if (read(entry, 2) == tag) {
                const bool isShort = read(entry + 2, 2) == 3 && read(entry + 4, 4) == 1;
                return read(entry + 8, isShort ? 2 : 4);
            }
        }
        return -1;
    }

    std::uint32_t read(std::uint32_t at, std::uint32_t size) const
    {
        std::uint32_t number = 0;
        if (at + size <= m_file.size()) {
            std::memcpy(&number, &m_file[at], size);
        }
        return number;
    }

private:
    std::uint32_t entries(std::uint32_t directory) const { return read(directory, 2); }

    const Bytes& m_file;
};

// The EXIF block of a JPEG, which starts right behind the start marker.
Bytes exifOf(const Bytes& jpeg)
{
    if (jpeg.size() < 12 || jpeg[2] != 0xFF || jpeg[3] != 0xE1) {
        return {};
    }
    const auto length = static_cast<std::ptrdiff_t>(jpeg[4] * 256 + jpeg[5]);
    return {jpeg.begin() + 12, jpeg.begin() + 4 + length};
}

class Pictures : public OpenTest
{
protected:
    // Takes a picture and answers its file.
    Bytes take()
    {
        const int before = VirtualCameraPictureCount();
        EdsRelease(m_host.picture());
        return pictureBytes(before);
    }
};

TEST_F(Pictures, SmallerQualityIsASmallerPicture)
{
    ASSERT_EQ(m_host.set(0x100, 0x0213FF0F), 0U);
    EXPECT_EQ(decode(take()).width, 320);
}

TEST_F(Pictures, ExifTellsTheSettings)
{
    configure("picture.clock = 1700000000");
    ASSERT_EQ(m_host.set(0x406, 0x68), 0U);
    const Bytes exif = exifOf(take());
    const TiffReader reader(exif);
    ASSERT_TRUE(reader.isTiff());
    const auto directory = static_cast<std::uint32_t>(reader.value(reader.first(), 0x8769));
    const auto shutter = static_cast<std::uint32_t>(reader.value(directory, 0x829A));
    EXPECT_EQ(reader.read(shutter, 4), 1U);
    EXPECT_EQ(reader.read(shutter + 4, 4), 60U);
    const auto aperture = static_cast<std::uint32_t>(reader.value(directory, 0x829D));
    EXPECT_EQ(reader.read(aperture, 4), 56U);
    EXPECT_EQ(reader.read(aperture + 4, 4), 10U);
    EXPECT_EQ(reader.value(directory, 0x8827), 400);
    EXPECT_EQ(reader.value(directory, 0x9211), 1);
    EXPECT_TRUE(contains(exif, "2023:11:14 22:13:20"));
    EXPECT_TRUE(contains(exif, "Virtual EOS"));
}

TEST_F(Pictures, LongerExposureIsBrighter)
{
    double last = 0;
    for (const std::uint32_t tv : {0x80U, 0x78U, 0x70U, 0x68U, 0x60U}) {
        ASSERT_EQ(m_host.set(0x406, tv), 0U);
        const double brightness = decode(take()).brightness();
        EXPECT_GT(brightness, last + 8) << tv;
        last = brightness;
    }
}

TEST_F(Pictures, WiderApertureAndHigherSensitivityAreBrighter)
{
    const double before = decode(take()).brightness();
    ASSERT_EQ(m_host.set(0x405, 0x28), 0U);
    const double wider = decode(take()).brightness();
    ASSERT_EQ(m_host.set(0x402, 0x60), 0U);
    const double faster = decode(take()).brightness();
    EXPECT_GT(wider, before + 8);
    EXPECT_GT(faster, wider + 8);
}

TEST_F(Pictures, MeteredExposureFollowsTheCompensationOnly)
{
    VirtualCameraTurnDial(0, 2);
    const double before = decode(take()).brightness();
    ASSERT_EQ(m_host.set(0x405, 0x28), 0U);
    EXPECT_NEAR(decode(take()).brightness(), before, 10);
    ASSERT_EQ(m_host.set(0x407, 0x08), 0U);
    EXPECT_GT(decode(take()).brightness(), before + 8);
}

TEST_F(Pictures, TintFollowsTheWhiteBalance)
{
    const auto warmth = [this](std::uint32_t whiteBalance) {
        EXPECT_EQ(m_host.set(0x106, whiteBalance), 0U);
        const Decoded picture = decode(take());
        return picture.mean(0) - picture.mean(2);
    };
    const double tungsten = warmth(3);
    const double daylight = warmth(1);
    const double shade = warmth(8);
    EXPECT_GT(daylight, tungsten + 10);
    EXPECT_GT(shade, daylight + 10);
}

TEST_F(Pictures, TintFollowsTheColorTemperature)
{
    ASSERT_EQ(m_host.set(0x106, 9), 0U);
    ASSERT_EQ(m_host.set(0x107, 2500), 0U);
    const Decoded cold = decode(take());
    ASSERT_EQ(m_host.set(0x107, 10000), 0U);
    const Decoded warm = decode(take());
    EXPECT_GT(cold.mean(2), cold.mean(0));
    EXPECT_GT(warm.mean(0), warm.mean(2));
}

TEST_F(Pictures, RawIsATiffWithAPreviewAndSensorData)
{
    ASSERT_EQ(m_host.set(0x100, 0x0064FF0F), 0U);
    const Bytes file = take();
    const TiffReader reader(file);
    ASSERT_TRUE(reader.isTiff());

    const std::uint32_t main = reader.first();
    const auto at = static_cast<std::ptrdiff_t>(reader.value(main, 0x0111));
    const auto length = static_cast<std::ptrdiff_t>(reader.value(main, 0x0117));
    ASSERT_LE(at + length, static_cast<std::ptrdiff_t>(file.size()));
    const Decoded preview = decode(Bytes(file.begin() + at, file.begin() + at + length));
    EXPECT_EQ(preview.width, reader.value(main, 0x0100));
    EXPECT_EQ(preview.height, reader.value(main, 0x0101));

    const std::uint32_t sensor = reader.after(main);
    ASSERT_NE(sensor, 0U);
    EXPECT_EQ(reader.after(sensor), 0U);
    const std::int64_t strip = reader.value(sensor, 0x0111) + reader.value(sensor, 0x0117);
    EXPECT_EQ(strip, static_cast<std::int64_t>(file.size()));
    EXPECT_EQ(reader.value(sensor, 0x0100) * reader.value(sensor, 0x0101) * 2,
              reader.value(sensor, 0x0117));
}

TEST_F(Pictures, RawPlusJpegMakesTwoFilesOfOneShot)
{
    ASSERT_EQ(m_host.set(0x100, 0x00640013), 0U);
    EdsRelease(m_host.picture());
    EdsRelease(m_host.nextItem());
    std::string name(64, '\0');
    VirtualCameraPictureName(0, name.data(), 64);
    EXPECT_STREQ(name.c_str(), "IMG_0001.CR2");
    VirtualCameraPictureName(1, name.data(), 64);
    EXPECT_STREQ(name.c_str(), "IMG_0001.JPG");
    EXPECT_EQ(VirtualCameraPictureValue(0, "shot"), VirtualCameraPictureValue(1, "shot"));
}

TEST_F(Pictures, EveryListedQualityMakesWhatItSays)
{
    for (const std::int32_t quality : m_host.allowed(0x100)) {
        const int before = VirtualCameraPictureCount();
        ASSERT_EQ(m_host.set(0x100, static_cast<std::uint32_t>(quality)), 0U);
        ASSERT_EQ(m_host.shoot(), 0U);
        ASSERT_EQ(VirtualCameraWaitForPictures(before + 1, kDeadlineMs), 1);
        ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
        const bool hasRaw = (quality >> 16) == 0x64;
        const bool hasBoth = hasRaw && (quality & 0xFFFF) != 0xFF0F;
        EXPECT_EQ(VirtualCameraPictureCount() - before, hasBoth ? 2 : 1);
        EXPECT_EQ(TiffReader(pictureBytes(before)).isTiff(), hasRaw);
    }
}

// How much neighbours differ in the upper tenth, where there is nothing but a wall.
double grain(const Decoded& picture)
{
    const std::size_t end = picture.samples.size() / 10;
    double sum = 0;
    for (std::size_t i = 3; i < end; ++i) {
        sum += std::abs(picture.samples[i] - picture.samples[i - 3]);
    }
    return sum / static_cast<double>(end);
}

TEST_F(Pictures, GrainGrowsWithTheSensitivity)
{
    VirtualCameraTurnDial(0, 0);
    double last = 0;
    for (const std::uint32_t sensitivity : {0x48U, 0x58U, 0x68U, 0x78U}) {
        ASSERT_EQ(m_host.set(0x402, sensitivity), 0U);
        const double now = grain(decode(take()));
        EXPECT_GT(now, last * 1.4) << sensitivity;
        last = now;
    }
}

// The thumbnail that the second directory of an EXIF block points to.
Bytes thumbnailOf(const Bytes& exif)
{
    const TiffReader reader(exif);
    const std::uint32_t second = reader.after(reader.first());
    if (second == 0) {
        return {};
    }
    const auto start = exif.begin() + static_cast<std::ptrdiff_t>(reader.value(second, 0x0201));
    return {start, start + static_cast<std::ptrdiff_t>(reader.value(second, 0x0202))};
}

TEST_F(Pictures, FullSizeOneHas45MillionPixelsAndAThumbnail)
{
    if (kIsSanitized) {
        GTEST_SKIP() << "takes half a minute with a sanitizer; smaller pictures run the same code";
    }
    const double brightness = decode(take()).brightness();
    configure("picture.full_size = 1");
    const Bytes file = take();
    const Decoded picture = decode(file);
    EXPECT_EQ(picture.width, 8256);
    EXPECT_EQ(picture.height, 5504);
    EXPECT_NEAR(picture.brightness(), brightness, 12);
    const Bytes exif = exifOf(file);
    const TiffReader reader(exif);
    const auto directory = static_cast<std::uint32_t>(reader.value(reader.first(), 0x8769));
    EXPECT_EQ(reader.value(directory, 0xA002), 8256);
    EXPECT_EQ(reader.value(directory, 0xA003), 5504);
    const Decoded thumbnail = decode(thumbnailOf(exif));
    EXPECT_EQ(thumbnail.width, 160);
    EXPECT_EQ(thumbnail.height, 106);
    EXPECT_NEAR(thumbnail.brightness(), brightness, 12);
}

TEST_F(Pictures, SmallOneHasNoThumbnail)
{
    EXPECT_TRUE(thumbnailOf(exifOf(take())).empty());
}

// How much a row differs from the one above it, at the left edge, where there is nothing but a
// wall.
int stepDown(const Decoded& picture, int row)
{
    const auto length = static_cast<std::size_t>(picture.width) * 3;
    const std::size_t start = static_cast<std::size_t>(row) * length;
    int sum = 0;
    for (std::size_t i = start; i < start + 150; ++i) {
        sum += std::abs(picture.samples[i] - picture.samples[i - length]);
    }
    return sum;
}

TEST_F(Pictures, LargeOneHasNoSeams)
{
    configure("picture.width = 1700\npicture.height = 1133");
    for (const std::uint32_t quality : {0x0013FF0FU, 0x0012FF0FU}) {
        ASSERT_EQ(m_host.set(0x100, quality), 0U);
        const Decoded picture = decode(take());
        ASSERT_EQ(picture.height, 1133);
        for (int seam = 128; seam < 600; seam += 128) {
            const int near = stepDown(picture, seam - 8) + stepDown(picture, seam + 8);
            EXPECT_LE(stepDown(picture, seam), near + 150) << seam;
        }
    }
}

TEST_F(Pictures, LargeRawHasAPreviewAndAMosaicOfItsOwnSize)
{
    configure("picture.width = 1800\npicture.height = 1200");
    ASSERT_EQ(m_host.set(0x100, 0x0064FF0F), 0U);
    const Bytes file = take();
    const TiffReader reader(file);
    const std::uint32_t sensor = reader.after(reader.first());
    EXPECT_EQ(reader.value(sensor, 0x0100), 1800);
    EXPECT_EQ(reader.value(sensor, 0x0101), 1200);
    const auto at = static_cast<std::ptrdiff_t>(reader.value(reader.first(), 0x0111));
    const auto length = static_cast<std::ptrdiff_t>(reader.value(reader.first(), 0x0117));
    const Decoded preview = decode(Bytes(file.begin() + at, file.begin() + at + length));
    EXPECT_EQ(preview.width, 1620);
    EXPECT_EQ(preview.height, 1080);
}

TEST_F(Pictures, ExifTellsTheCameraToo)
{
    ASSERT_EQ(m_host.set(0x106, 1), 0U);
    const Bytes exif = exifOf(take());
    const TiffReader reader(exif);
    const auto directory = static_cast<std::uint32_t>(reader.value(reader.first(), 0x8769));
    EXPECT_EQ(reader.value(reader.first(), 0x0128), 2);  // resolution in inches
    EXPECT_EQ(reader.value(directory, 0x9208), 1);       // light source: daylight
    EXPECT_EQ(reader.value(directory, 0xA001), 1);       // sRGB
    EXPECT_EQ(reader.value(directory, 0xA402), 1);       // exposed by hand
    EXPECT_EQ(reader.value(directory, 0xA405), 50);      // focal length
    EXPECT_TRUE(contains(exif, "Virtual 50 mm"));
    const auto speed = static_cast<std::uint32_t>(reader.value(directory, 0x9201));
    EXPECT_NEAR(reader.read(speed, 4) / 1000.0, 6.966, 0.001);  // 1/125 in stops
    const auto aperture = static_cast<std::uint32_t>(reader.value(directory, 0x9202));
    EXPECT_NEAR(reader.read(aperture, 4) / 1000.0, 4.971, 0.001);
}

class PictureSizes : public Pictures, public testing::WithParamInterface<int>
{};

TEST_P(PictureSizes, AreMetToTheByteByJpegAndRaw)
{
    const std::string size = std::to_string(GetParam());
    configure("picture.size = " + size + "\npicture.raw_size = " + size);
    const Bytes jpeg = take();
    EXPECT_EQ(jpeg.size(), static_cast<std::size_t>(GetParam()));
    EXPECT_GT(decode(jpeg).width, 0);
    EXPECT_TRUE(TiffReader(exifOf(jpeg)).isTiff());
    ASSERT_EQ(m_host.set(0x100, 0x0064FF0F), 0U);
    const Bytes raw = take();
    EXPECT_EQ(raw.size(), static_cast<std::size_t>(GetParam()));
    EXPECT_TRUE(TiffReader(raw).isTiff());
}

// Around a comment segment's limits, and the ends of the range.
INSTANTIATE_TEST_SUITE_P(Sizes, PictureSizes,
                         testing::Values(1000, 1024, 1500, 5000, 38000, 100001, 104100, 104101,
                                         104102, 104103, 104104, 250000, 60000000));

TEST_F(Pictures, NamesCountUpAndCanBeChosen)
{
    take();
    configure("picture.name = sub/folder\\evil.JPG");
    const EdsDirectoryItemRef item = m_host.picture();
    EdsDirectoryItemInfo info{};
    ASSERT_EQ(EdsGetDirectoryItemInfo(item, &info), 0U);
    EXPECT_STREQ(info.szFileName, "sub/folder\\evil.JPG");
    EXPECT_EQ(info.isFolder, 0);
    EdsRelease(item);
}

TEST_F(Pictures, NameOf256BytesHasNoTerminator)
{
    const std::string name(256, 'a');
    ASSERT_EQ(VirtualCanonSetPictureName(0, name.data(), 256), 1);
    const EdsDirectoryItemRef item = m_host.picture();
    EdsDirectoryItemInfo info{};
    ASSERT_EQ(EdsGetDirectoryItemInfo(item, &info), 0U);
    EXPECT_EQ(std::memchr(info.szFileName, 0, sizeof info.szFileName), nullptr);
    EdsRelease(item);
}

TEST_F(Pictures, OnlyTheLastOnesAreKept)
{
    configure("picture.keep = 2");
    take();
    take();
    take();
    EXPECT_EQ(VirtualCameraPictureBytes(0, nullptr, 0), -1);
    EXPECT_GT(VirtualCameraPictureBytes(1, nullptr, 0), 0);
    EXPECT_EQ(VirtualCameraPictureCount(), 3);
    EXPECT_GT(VirtualCameraPictureValue(0, "size"), 0);
}

}  // namespace
