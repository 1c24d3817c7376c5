#include "common/Platform.h"

#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#endif

namespace virtualcamera {

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

unsigned long processNumber()
{
    return ::GetCurrentProcessId();
}

void appendToFile(std::FILE* file, const std::string& text)
{
    // To look for the end and to write there are two steps here. A byte that is never written
    // stands for the whole file.
    const auto handle = reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(file)));
    OVERLAPPED lastByte = {};
    lastByte.Offset = lastByte.OffsetHigh = 0x7FFFFFFF;
    const bool isLocked =
        ::LockFileEx(handle, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &lastByte) != FALSE;
    std::fputs(text.c_str(), file);
    std::fflush(file);
    if (isLocked) {
        ::UnlockFileEx(handle, 0, 1, 0, &lastByte);
    }
}

bool isThere(const std::string& path)
{
    return ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool isFolder(const std::string& path)
{
    const DWORD attributes = ::GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
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

unsigned long processNumber()
{
    return static_cast<unsigned long>(::getpid());
}

void appendToFile(std::FILE* file, const std::string& text)
{
    std::fputs(text.c_str(), file);
    std::fflush(file);
}

bool isThere(const std::string& path)
{
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
}

bool isFolder(const std::string& path)
{
    std::error_code ignored;
    return std::filesystem::is_directory(path, ignored);
}

LoadedWhile::LoadedWhile() = default;
LoadedWhile::~LoadedWhile() = default;

#endif

}  // namespace virtualcamera
