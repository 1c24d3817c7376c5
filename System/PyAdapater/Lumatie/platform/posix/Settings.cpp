// The machine-wide settings on POSIX: a text file with one "name=value" a line.
#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>

#include "platform/Platform.h"

namespace platform {

namespace {

constexpr const char* kSettingsFile = LUMATIE_CONFIG_DIR "/Imagrelle.conf";
constexpr const char* kDumpMessageName = "DumpMsg=";

// A number that is none, or that has more than 32 bits, counts as 0: the registry, too, refuses
// a value that does not fit into the four bytes offered.
std::uint32_t readUnsigned(const std::string& text)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    return value <= std::numeric_limits<std::uint32_t>::max() ? static_cast<std::uint32_t>(value)
                                                              : 0;
}

}  // namespace

std::optional<std::uint32_t> dumpMessageSetting()
{
    std::ifstream file(kSettingsFile);
    if (!file) {
        return std::nullopt;
    }
    const std::string name = kDumpMessageName;
    std::string line;
    while (std::getline(file, line)) {
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (line.compare(0, name.size(), name) == 0) {
            return readUnsigned(line.substr(name.size()));
        }
    }
    return 0;
}

}  // namespace platform
