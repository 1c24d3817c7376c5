#include "platform/windows/WideText.h"

#include "platform/windows/Windows.h"

namespace platform {

std::optional<std::wstring> toWide(const char* text)
{
    if (text == nullptr) {
        return std::nullopt;
    }
    // The count includes the terminator, so it is never 0 for a text that can be converted.
    const int size = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, nullptr, 0);
    if (size <= 0) {
        return std::nullopt;
    }
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, wide.data(), size);
    wide.pop_back();
    return wide;
}

namespace {

// `text` in a code page; `lost` hears of characters that are not in it.
std::string toCodePage(const std::wstring& text, UINT codePage, DWORD flags, BOOL* lost)
{
    const int length = static_cast<int>(text.size());
    const int size =
        ::WideCharToMultiByte(codePage, flags, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(codePage, flags, text.data(), length, narrow.data(), size, nullptr, lost);
    return narrow;
}

}  // namespace

std::string toUtf8(const std::wstring& text)
{
    return toCodePage(text, CP_UTF8, 0, nullptr);
}

std::optional<std::string> toAnsi(const std::wstring& text)
{
    if (::GetACP() == CP_UTF8) {
        return toUtf8(text);
    }
    BOOL lost = FALSE;
    std::string narrow = toCodePage(text, CP_ACP, WC_NO_BEST_FIT_CHARS, &lost);
    if (lost != FALSE) {
        return std::nullopt;
    }
    return narrow;
}

}  // namespace platform
