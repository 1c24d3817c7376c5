// Paths on Windows.
#pragma once

#include <optional>
#include <string>

namespace platform {

// `path`, which is UTF-8, as a complete path in UTF-16; nothing when it can be none.
std::optional<std::wstring> fullPath(const char* path);

}  // namespace platform
