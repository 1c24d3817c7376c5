#include "Seams.h"

#include <cstring>
#include <optional>

#include "DebugLog.h"
#include "Input.h"
#include "PyCallback.h"
#include "platform/Platform.h"

namespace fuzz {

void switchDebugLogOn()
{
    readDebugLogSwitch();
}

}  // namespace fuzz

bool PyCallback::interpreterIsEnding()
{
    return false;
}

namespace platform {

void rejectText(const char* /*what*/)
{
    throw fuzz::Rejected();
}

void sleepFor(unsigned /*milliseconds*/) {}

void debuggerOutput(const char* line)
{
    constexpr std::size_t kLongest = 9 + 1023 + 1;  // prefix, message, line end
    const std::size_t size = std::strlen(line);
    fuzz::check(std::strncmp(line, "[Lumatie]", 9) == 0, "a log line begins with the prefix");
    fuzz::check(size <= kLongest, "a log line is cut to its limit");
    fuzz::check(line[size - 1] == '\n', "a log line ends");
}

std::optional<std::uint32_t> dumpMessageSetting()
{
    return 1;
}

}  // namespace platform
