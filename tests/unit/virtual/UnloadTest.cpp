// The library can be unloaded: after a clean end, with a session open, and many times.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>

namespace {

class Library
{
public:
    Library() : m_handle(dlopen(VIRTUAL_CANON_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {}
    ~Library() { unload(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    bool isLoaded() const { return m_handle != nullptr; }

    template <typename Function>
    Function* find(const char* name) const
    {
        return reinterpret_cast<Function*>(dlsym(m_handle, name));
    }

    void unload()
    {
        if (m_handle != nullptr) {
            dlclose(m_handle);
            m_handle = nullptr;
        }
    }

private:
    void* m_handle;
};

bool isStillThere()
{
    void* handle = dlopen(VIRTUAL_CANON_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

using Plain = std::uint32_t();
using ListOut = std::uint32_t(void**);
using ChildOut = std::uint32_t(void*, std::int32_t, void**);
using OfCamera = std::uint32_t(void*);

void openSession(const Library& library)
{
    void* list = nullptr;
    void* camera = nullptr;
    ASSERT_EQ(library.find<Plain>("EdsInitializeSDK")(), 0U);
    ASSERT_EQ(library.find<ListOut>("EdsGetCameraList")(&list), 0U);
    ASSERT_EQ(library.find<ChildOut>("EdsGetChildAtIndex")(list, 0, &camera), 0U);
    ASSERT_EQ(library.find<OfCamera>("EdsOpenSession")(camera), 0U);
}

TEST(Unloading, IsPossibleAfterTerminate)
{
    for (int i = 0; i < 20; ++i) {
        Library library;
        ASSERT_TRUE(library.isLoaded()) << dlerror();
        openSession(library);
        library.find<Plain>("EdsTerminateSDK")();
        library.unload();
        ASSERT_FALSE(isStillThere());
    }
}

TEST(Unloading, IsPossibleWithASessionOpen)
{
    for (int i = 0; i < 20; ++i) {
        Library library;
        ASSERT_TRUE(library.isLoaded()) << dlerror();
        openSession(library);
        library.unload();
        ASSERT_FALSE(isStillThere());
    }
}

TEST(Unloading, ExportsNothingOfItsOwnInside)
{
    const Library library;
    ASSERT_TRUE(library.isLoaded()) << dlerror();
    EXPECT_NE(library.find<Plain>("VirtualCameraReset"), nullptr);
    EXPECT_EQ(library.find<Plain>("stbi_write_jpg_to_func"), nullptr);
}

}  // namespace
