// What the unloading of any maker's library comes to.
#include <gtest/gtest.h>

#include "virtualcamera/SteeredLibrary.h"

namespace {

TEST(SteeredUnloading, ForgetsEverything)
{
    {
        const SteeredLibrary library(VIRTUAL_CAMERA_LIBRARY);
        ASSERT_EQ(library.configure("camera.name = Other\nlog.lines = 7"), 0);
        ASSERT_EQ(library.add("Second", 4), 1);
    }
    ASSERT_FALSE(SteeredLibrary::isThere(VIRTUAL_CAMERA_LIBRARY));
    const SteeredLibrary library(VIRTUAL_CAMERA_LIBRARY);
    EXPECT_EQ(library.count(), 1);
}

TEST(SteeredUnloading, ExportsNothingOfItsOwnInside)
{
    const SteeredLibrary library(VIRTUAL_CAMERA_LIBRARY);
    ASSERT_TRUE(library.isLoaded());
    EXPECT_NE(library.reset, nullptr);
    EXPECT_EQ(library.find<void (*)()>("stbi_write_jpg_to_func"), nullptr);
}

}  // namespace
