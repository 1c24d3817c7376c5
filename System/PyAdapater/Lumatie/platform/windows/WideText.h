// Texts as Windows takes them: UTF-16.
#pragma once

#include <optional>
#include <string>

namespace platform {

// `text`, which is UTF-8, in UTF-16; nothing when it is null or no UTF-8.
std::optional<std::wstring> toWide(const char* text);

// `text` in UTF-8; halves of a surrogate pair become replacement characters.
std::string toUtf8(const std::wstring& text);

// `text` in the ANSI code page; nothing when a character is not in it.
std::optional<std::string> toAnsi(const std::wstring& text);

}  // namespace platform
