#include "DebugLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Platform.h"

namespace {

constexpr const char* kModuleName = "Lumatie";
constexpr std::size_t kPrefixSize = 30;
constexpr std::size_t kMessageSize = 1024;

std::atomic<bool> g_bDumpMsg{false};

std::mutex g_prefixLock;  // guards both prefixes
char g_szLogPrefix[kPrefixSize] = "";
wchar_t g_wszLogPrefix[kPrefixSize] = L"";

std::string logPrefix()
{
    const std::lock_guard<std::mutex> guard(g_prefixLock);
    return g_szLogPrefix;
}

}  // namespace

void DebugLog(const char* format, ...)
{
    if (!g_bDumpMsg) {
        return;
    }
    char message[kMessageSize] = "";
    va_list values;
    va_start(values, format);
    std::vsnprintf(message, sizeof message, format, values);
    va_end(values);

    // On the stack: there may be no memory left, and that be what is logged.
    char line[kPrefixSize + kMessageSize + 1];
    std::snprintf(line, sizeof line, "%s%s\n", logPrefix().c_str(), message);
    platform::debuggerOutput(line);
}

void readDebugLogSwitch()
{
    const std::optional<std::uint32_t> setting = platform::dumpMessageSetting();
    if (!setting) {
        return;
    }
    {
        const std::lock_guard<std::mutex> guard(g_prefixLock);
        std::snprintf(g_szLogPrefix, kPrefixSize, "[%s]", kModuleName);
        // "%hs" is standard C for what the Windows runtime also spells "%S".
        std::swprintf(g_wszLogPrefix, kPrefixSize, L"[%hs]", kModuleName);
    }
    g_bDumpMsg = *setting != 0;
}
