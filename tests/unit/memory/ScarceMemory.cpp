#include "ScarceMemory.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<bool> g_isScarce{false};
std::atomic<bool> g_always{false};
std::atomic<int> g_left{0};  // allocations until the one that fails
std::atomic<int> g_failures{0};

const void* baseOf(const void* address)
{
    Dl_info info = {};
    return ::dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

bool isRuntime(const void* address)
{
    Dl_info info = {};
    if (::dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return true;
    }
    for (const char* library : {"libstdc++", "libasan", "libtsan", "libc.so", "libgcc"}) {
        if (std::strstr(info.dli_fname, library) != nullptr) {
            return true;
        }
    }
    return false;
}

// Whether code of this program asks for the memory, itself or through the C++ library. `caller` is
// where `operator new` returns to.
bool isAskedByUs(void* caller)
{
    static const void* const own = baseOf(reinterpret_cast<void*>(&isRuntime));
    std::array<void*, 24> frames = {};
    const auto* const end =
        frames.begin() + ::backtrace(frames.data(), static_cast<int>(frames.size()));
    const auto* const asking =
        std::find_if_not(std::find(frames.cbegin(), end, caller), end, isRuntime);
    return asking != end && baseOf(*asking) == own;
}

void* allocate(std::size_t size, void* caller)
{
    if (g_isScarce && isAskedByUs(caller) && (--g_left == 0 || g_always)) {
        ++g_failures;
        throw std::bad_alloc();
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

ScarceMemory::ScarceMemory(int number, bool always)
{
    // The first use of it takes memory.
    std::array<void*, 1> frame = {};
    ::backtrace(frame.data(), 1);
    g_left = number;
    g_always = always;
    g_failures = 0;
    g_isScarce = true;
}

ScarceMemory::~ScarceMemory()
{
    g_isScarce = false;
}

int ScarceMemory::failures()
{
    return g_failures;
}

void* operator new(std::size_t size)
{
    return allocate(size, __builtin_return_address(0));
}

void* operator new[](std::size_t size)
{
    return allocate(size, __builtin_return_address(0));
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
