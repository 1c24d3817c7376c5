#include "common/Platform.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdint>
#else
#include <cstdlib>
#endif

namespace steering {

#ifdef _WIN32

std::string environment(const char* name)
{
    std::string value(::GetEnvironmentVariableA(name, nullptr, 0), '\0');
    if (!value.empty()) {
        value.resize(
            ::GetEnvironmentVariableA(name, value.data(), static_cast<DWORD>(value.size())));
    }
    return value;
}

std::FILE* openForAppending(const std::string& path)
{
    // The C runtime would look for the end first, and write then. With nothing but the right to
    // append, the system does both at once.
    const HANDLE file =
        ::CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return nullptr;
    }
    return ::_fdopen(::_open_osfhandle(reinterpret_cast<std::intptr_t>(file), _O_TEXT), "a");
}

LoadedWhile::LoadedWhile()
{
    // Any address in the library names it.
    static const char kHere = 0;
    HMODULE library = nullptr;
    ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, &kHere, &library);
    m_library = library;
}

LoadedWhile::~LoadedWhile()
{
    ::FreeLibrary(static_cast<HMODULE>(m_library));
}

#else

std::string environment(const char* name)
{
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing sets it here
    return value == nullptr ? "" : value;
}

std::FILE* openForAppending(const std::string& path)
{
    return std::fopen(path.c_str(), "a");
}

LoadedWhile::LoadedWhile() = default;
LoadedWhile::~LoadedWhile() = default;

#endif

}  // namespace steering
