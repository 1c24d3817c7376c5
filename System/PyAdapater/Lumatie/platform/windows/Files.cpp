// Files on Windows. Every path goes through UTF-16, whatever the ANSI code page is.
#include "platform/windows/Files.h"

#include "platform/Platform.h"
#include "platform/windows/WideText.h"
#include "platform/windows/Windows.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>

namespace platform {

namespace {

// How often, and after which pause, a file is deleted again that a virus scanner or an indexer
// looks at just then.
constexpr int kDeleteAttempts = 20;
constexpr unsigned kDeletePauseMs = 25;

bool isGone(DWORD error)
{
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

// The folder's name in the form 8.3, which every code page has; nothing when its disk keeps none.
std::optional<std::wstring> shortPath(const std::wstring& folder)
{
    const DWORD size = ::GetShortPathNameW(folder.c_str(), nullptr, 0);
    std::wstring path(size, L'\0');
    const DWORD length = ::GetShortPathNameW(folder.c_str(), path.data(), size);
    if (length == 0 || length >= size) {
        return std::nullopt;
    }
    path.resize(length);
    return path;
}

}  // namespace

const char kPathSeparator = '\\';

std::optional<std::wstring> fullPath(const char* path)
{
    const std::optional<std::wstring> wide = toWide(path);
    if (!wide) {
        return std::nullopt;
    }
    const DWORD size = ::GetFullPathNameW(wide->c_str(), 0, nullptr, nullptr);
    std::wstring full(size, L'\0');
    const DWORD length = ::GetFullPathNameW(wide->c_str(), size, full.data(), nullptr);
    if (length == 0 || length >= size) {
        return std::nullopt;
    }
    full.resize(length);
    return full;
}

std::uint32_t fileAttributes(const char* path)
{
    const std::optional<std::wstring> wide = toWide(path);
    return wide ? ::GetFileAttributesW(wide->c_str()) : kNoAttributes;
}

std::string completePath(const std::string& path)
{
    const std::optional<std::wstring> full = fullPath(path.c_str());
    return full ? toUtf8(*full) : path;
}

bool removeFile(const char* path)
{
    const std::optional<std::wstring> wide = toWide(path);
    if (!wide) {
        return true;
    }
    for (int attempt = 1; ::DeleteFileW(wide->c_str()) == FALSE; ++attempt) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_SHARING_VIOLATION || attempt == kDeleteAttempts) {
            return isGone(error);
        }
        sleepFor(kDeletePauseMs);
    }
    return true;
}

File createFile(const char* path, bool& isThere)
{
    isThere = false;
    const std::optional<std::wstring> wide = toWide(path);
    if (!wide) {
        return nullptr;
    }
    const int file =
        ::_wopen(wide->c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY | _O_NOINHERIT,
                 _S_IREAD | _S_IWRITE);
    isThere = file < 0 && errno == EEXIST;
    if (file < 0) {
        return nullptr;
    }
    File stream(::_fdopen(file, "wb"));
    if (!stream) {
        ::_close(file);
        ::DeleteFileW(wide->c_str());
    }
    return stream;
}

std::optional<std::string> libraryPath(const std::string& path)
{
    const std::optional<std::wstring> wide = toWide(path.c_str());
    if (!wide) {
        return std::nullopt;
    }
    if (std::optional<std::string> text = toAnsi(*wide)) {
        return text;
    }
    const std::size_t separator = wide->find_last_of(L"\\/");
    if (separator != std::wstring::npos) {
        const std::optional<std::wstring> folder = shortPath(wide->substr(0, separator));
        if (folder) {
            return toAnsi(*folder + wide->substr(separator));
        }
    }
    return std::nullopt;
}

}  // namespace platform
