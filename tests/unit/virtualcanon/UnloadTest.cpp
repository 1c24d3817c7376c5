// The library can be unloaded: after a clean end, with a session open, and many times.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>

#include "System.h"

namespace {

class Library : public LoadedLibrary
{
public:
    Library() : LoadedLibrary(VIRTUAL_CANON_LIBRARY) {}
};

using Plain = std::uint32_t();
using ListOut = std::uint32_t(void**);
using ChildOut = std::uint32_t(void*, std::int32_t, void**);
using OfCamera = std::uint32_t(void*);

void openSession(const Library& library)
{
    void* list = nullptr;
    void* camera = nullptr;
    ASSERT_EQ(library.find<Plain*>("EdsInitializeSDK")(), 0U);
    ASSERT_EQ(library.find<ListOut*>("EdsGetCameraList")(&list), 0U);
    ASSERT_EQ(library.find<ChildOut*>("EdsGetChildAtIndex")(list, 0, &camera), 0U);
    ASSERT_EQ(library.find<OfCamera*>("EdsOpenSession")(camera), 0U);
}

TEST(Unloading, IsPossibleAfterTerminate)
{
    for (int i = 0; i < 20; ++i) {
        Library library;
        ASSERT_TRUE(library.isLoaded());
        openSession(library);
        library.find<Plain*>("EdsTerminateSDK")();
        library.unload();
        ASSERT_FALSE(Library::isThere(VIRTUAL_CANON_LIBRARY));
    }
}

TEST(Unloading, IsPossibleWithASessionOpen)
{
    if (!kUnloadsWithThreads) {
        GTEST_SKIP() << "here the threads of an open session keep the library loaded";
    }
    for (int i = 0; i < 20; ++i) {
        Library library;
        ASSERT_TRUE(library.isLoaded());
        openSession(library);
        library.unload();
        ASSERT_FALSE(Library::isThere(VIRTUAL_CANON_LIBRARY));
    }
}

TEST(Unloading, DoesNotTakeTheCodeOfRunningThreadsAway)
{
    // In a process of its own, where the library may stay.
    const auto act = [] {
        Library library;
        openSession(library);
        library.unload();
        // Time for a thread to run into code that is not there any more.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::_Exit(Library::isThere(VIRTUAL_CANON_LIBRARY) == kUnloadsWithThreads ? 1 : 0);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

}  // namespace
