// Libraries that are loaded at run time, for Windows.
#include <optional>
#include <string>

#include "platform/Platform.h"
#include "platform/windows/Files.h"
#include "platform/windows/WideText.h"
#include "platform/windows/Windows.h"

namespace platform {

namespace {

// Keeps the system from showing a message box about a file that is no library, and waiting for
// somebody to press its button.
class QuietErrors
{
public:
    QuietErrors() { ::SetThreadErrorMode(SEM_FAILCRITICALERRORS, &m_earlier); }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
    ~QuietErrors() { ::SetThreadErrorMode(m_earlier, nullptr); }

private:
    DWORD m_earlier = 0;
};

std::string describe(DWORD error)
{
    wchar_t text[512] = L"";
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                         0, text, static_cast<DWORD>(std::size(text)), nullptr);
    std::wstring message(text, length);
    message.erase(message.find_last_not_of(L" \r\n") + 1);
    return "error " + std::to_string(error) + ": " + toUtf8(message);
}

// The path as the loader takes it. Only one that is complete makes it look for the libraries that
// this one needs in the same folder; only a dot at the end keeps it from adding ".dll".
std::optional<std::wstring> loaderPath(const char* path)
{
    std::optional<std::wstring> full = fullPath(path);
    if (full && full->find(L'.', full->find_last_of(L"\\/") + 1) == std::wstring::npos) {
        *full += L'.';
    }
    return full;
}

}  // namespace

std::unique_ptr<Library> Library::load(const char* path, std::string& error)
{
    const std::uint32_t attributes = fileAttributes(path);
    const std::optional<std::wstring> file = loaderPath(path);
    if (!file || attributes == kNoAttributes || (attributes & kAttributeDirectory) != 0) {
        error = std::string(path) + ": not a regular file";
        return nullptr;
    }
    const QuietErrors quiet;
    const HMODULE module = ::LoadLibraryExW(file->c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (module == nullptr) {
        error = std::string(path) + ": " + describe(::GetLastError());
        return nullptr;
    }
    return std::unique_ptr<Library>(new Library(module));
}

Library::~Library()
{
    ::FreeLibrary(static_cast<HMODULE>(m_handle));
}

void (*Library::function(const char* name) const)()
{
    return reinterpret_cast<void (*)()>(::GetProcAddress(static_cast<HMODULE>(m_handle), name));
}

}  // namespace platform
