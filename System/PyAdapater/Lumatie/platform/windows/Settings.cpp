// The machine-wide settings on Windows: values of a registry key.
#include "platform/Platform.h"
#include "platform/windows/Windows.h"

namespace platform {

namespace {

constexpr const char* kKey = LUMATIE_REGISTRY_KEY;
constexpr const char* kDumpMessageName = "DumpMsg";

}  // namespace

std::optional<std::uint32_t> dumpMessageSetting()
{
    HKEY key = nullptr;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, kKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    // The value's type does not matter: a text counts by its bytes. One of more than four bytes is
    // refused by the registry, and counts as 0 like one that is not there.
    std::uint32_t value = 0;
    DWORD size = sizeof value;
    if (::RegQueryValueExA(key, kDumpMessageName, nullptr, nullptr, reinterpret_cast<BYTE*>(&value),
                           &size) != ERROR_SUCCESS) {
        value = 0;
    }
    ::RegCloseKey(key);
    return value;
}

}  // namespace platform
