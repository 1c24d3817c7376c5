// Both makers' cameras in one process: they export the same names, and each answers for itself.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "virtualcamera/SteeredLibrary.h"

namespace {

struct Loading {
    const char* name;
    LoadedLibrary::Names canon;
    LoadedLibrary::Names nikon;
    bool isNikonFirst;
};

std::string textOf(int (*textOut)(char*, int))
{
    std::string text(100000, '\0');
    text.resize(static_cast<std::size_t>(textOut(text.data(), static_cast<int>(text.size()))));
    return text;
}

class VirtualCameras : public testing::TestWithParam<Loading>
{
protected:
    // Loads one while the other is, or is not, there already.
    VirtualCameras()
    {
        const Loading& how = GetParam();
        if (how.isNikonFirst) {
            m_nikon = std::make_unique<SteeredLibrary>(VIRTUAL_NIKON_LIBRARY, how.nikon);
        }
        m_canon = std::make_unique<SteeredLibrary>(VIRTUAL_CANON_LIBRARY, how.canon);
        if (!how.isNikonFirst) {
            m_nikon = std::make_unique<SteeredLibrary>(VIRTUAL_NIKON_LIBRARY, how.nikon);
        }
    }

    const SteeredLibrary& canon() const { return *m_canon; }
    const SteeredLibrary& nikon() const { return *m_nikon; }

private:
    std::unique_ptr<SteeredLibrary> m_canon;
    std::unique_ptr<SteeredLibrary> m_nikon;
};

TEST_P(VirtualCameras, HaveTheirOwnState)
{
    const std::string nikonBefore = textOf(nikon().settings);
    ASSERT_EQ(canon().configure("shutter.lag_ms = 11\ncamera.name = Left\n[camera 1]"), 0);
    EXPECT_EQ(textOf(nikon().settings), nikonBefore);
    const std::string canonBefore = textOf(canon().settings);
    ASSERT_EQ(nikon().configure("shutter.lag_ms = 22\ncamera.name = Right"), 0);
    EXPECT_EQ(textOf(canon().settings), canonBefore);
    EXPECT_NE(canonBefore.find("shutter.lag_ms = 11\n"), std::string::npos);
    EXPECT_EQ(canon().count(), 2);
    EXPECT_EQ(nikon().count(), 1);

    ASSERT_EQ(canon().pressShutter(0), 1);
    EXPECT_EQ(canon().waitForPictures(1, 20000), 1);
    EXPECT_EQ(nikon().pictureCount(), 0);
    nikon().reset();
    EXPECT_EQ(textOf(nikon().settings), nikonBefore);
    EXPECT_EQ(textOf(canon().settings), canonBefore);
    EXPECT_EQ(canon().pictureCount(), 1);
}

// One of the functions is made of another: it has to find the one of its own library.
TEST_P(VirtualCameras, CallTheirOwnFunctionsInside)
{
    EXPECT_EQ(canon().failNext("EdsOpenSession", 0x81, 1), 1);
    EXPECT_EQ(nikon().failNext("CapGet", -5, 1), 1);
    EXPECT_EQ(nikon().failNext("EdsOpenSession", 0x81, 1), 0);
    EXPECT_NE(textOf(nikon().lastError), "");
    EXPECT_EQ(textOf(canon().lastError), "");
}

TEST_P(VirtualCameras, ExportTheSameNamesOfDifferentFunctions)
{
    EXPECT_NE(canon().reset, nikon().reset);
    EXPECT_NE(canon().find<void (*)()>("EdsInitializeSDK"), nullptr);
    EXPECT_EQ(canon().find<void (*)()>("MAIDEntryPoint"), nullptr);
    EXPECT_EQ(nikon().find<void (*)()>("EdsInitializeSDK"), nullptr);
    EXPECT_NE(nikon().find<void (*)()>("MAIDEntryPoint"), nullptr);
}

constexpr auto kOwn = LoadedLibrary::Names::kOwn;
constexpr auto kForAll = LoadedLibrary::Names::kForAll;

INSTANTIATE_TEST_SUITE_P(Loaded, VirtualCameras,
                         testing::Values(Loading{"EachForItself", kOwn, kOwn, false},
                                         Loading{"EachForItselfNikonFirst", kOwn, kOwn, true},
                                         Loading{"CanonForAll", kForAll, kOwn, false},
                                         Loading{"NikonForAllAndFirst", kOwn, kForAll, true},
                                         Loading{"BothForAll", kForAll, kForAll, false},
                                         Loading{"BothForAllNikonFirst", kForAll, kForAll, true}),
                         [](const testing::TestParamInfo<Loading>& loading) {
                             return loading.param.name;
                         });

}  // namespace
