#include "nikon/CallRules.h"

#include <algorithm>
#include <array>
#include <utility>

#include "common/Text.h"
#include "nikon/Codes.h"

namespace virtualnikon {

namespace {

constexpr std::int64_t kHour = 3600000;
constexpr std::array<const char*, 5> kLevels{"none", "module", "source", "item", "data"};

constexpr std::array<std::pair<std::uint32_t, const char*>, 10> kCommands{{
    {kMaidCommandAsync, "Async"},
    {kMaidCommandOpen, "Open"},
    {kMaidCommandClose, "Close"},
    {kMaidCommandGetCapCount, "GetCapCount"},
    {kMaidCommandGetCapInfo, "GetCapInfo"},
    {kMaidCommandCapStart, "CapStart"},
    {kMaidCommandCapSet, "CapSet"},
    {kMaidCommandCapGet, "CapGet"},
    {kMaidCommandCapGetArray, "CapGetArray"},
    {kMaidCommandEnumChildren, "EnumChildren"},
}};

bool isCommandName(const std::string& name)
{
    if (name == "*" || name == "Command" || name == "Unknown") {
        return true;
    }
    return std::any_of(kCommands.begin(), kCommands.end(),
                       [&](const auto& command) { return name == command.second; });
}

Completion& completionOf(CommandFault& fault)
{
    if (!fault.completion) {
        fault.completion.emplace();
    }
    return *fault.completion;
}

}  // namespace

std::optional<std::uint32_t> levelNamed(std::string_view text)
{
    for (std::uint32_t level = 1; level < kLevels.size(); ++level) {
        if (text == kLevels[level]) {
            return level;
        }
    }
    const auto number = virtualcamera::integer(text);
    if (number && *number >= 1 && *number < static_cast<std::int64_t>(kLevels.size())) {
        return static_cast<std::uint32_t>(*number);
    }
    return std::nullopt;
}

const char* levelName(std::uint32_t level)
{
    return level < kLevels.size() ? kLevels[level] : "?";
}

const char* commandName(std::uint32_t command)
{
    for (const auto& known : kCommands) {
        if (known.first == command) {
            return known.second;
        }
    }
    return "Unknown";
}

std::string CommandRules::add(std::string_view text)
{
    const std::vector<std::string> parts = virtualcamera::words(text);
    if (parts.empty() || !isCommandName(parts.front())) {
        return "a rule starts with a command's name, \"Command\" or \"*\"";
    }
    Rule rule;
    rule.name = parts.front();
    for (std::size_t i = 1; i < parts.size(); ++i) {
        const std::string& part = parts[i];
        const std::size_t sign = part.find('=');
        if (sign == std::string::npos) {
            if (!parseWord(part, rule)) {
                return "unknown word: " + part;
            }
            continue;
        }
        const std::string key = part.substr(0, sign);
        const std::string value = part.substr(sign + 1);
        const auto level = key == "level" ? levelNamed(value) : std::nullopt;
        const auto number = virtualcamera::integer(value);
        if (level) {
            rule.level = level;
        } else if (!number || !parseNumber(key, *number, rule)) {
            return "unknown word or value: " + part;
        }
    }
    m_rules.push_back(rule);
    return {};
}

bool CommandRules::parseWord(std::string_view key, Rule& rule)
{
    if (key == "after") {
        rule.fault.isAfter = true;
    } else if (key == "hang") {
        rule.fault.hangs = true;
    } else if (key == "unplug") {
        rule.fault.unplugs = true;
    } else if (key == "at_once") {
        completionOf(rule.fault) = Completion{};
    } else if (key == "never") {
        completionOf(rule.fault).isNever = true;
    } else if (key == "twice") {
        completionOf(rule.fault).isTwice = true;
    } else if (key == "complete_thread") {
        completionOf(rule.fault).isOnThread = true;
    } else if (key == "late_data") {
        completionOf(rule.fault).isDataLate = true;
    } else {
        return false;
    }
    return true;
}

bool CommandRules::parseNumber(std::string_view key, std::int64_t value, Rule& rule)
{
    if (value < -0x80000000LL || value > 0xFFFFFFFFLL) {
        return false;
    }
    const bool isTime = value >= 0 && value <= kHour;
    const auto bits = static_cast<std::uint32_t>(value & 0xFFFFFFFFLL);
    if (key == "code") {
        rule.fault.code = static_cast<std::int32_t>(bits);
    } else if (key == "completion") {
        completionOf(rule.fault).result = static_cast<std::int32_t>(bits);
    } else if (key == "capability") {
        rule.capability = bits;
    } else if (key == "object") {
        rule.object = bits;
    } else if (key == "delay_ms" && isTime) {
        rule.fault.delayMs = static_cast<int>(value);
    } else if (key == "complete_calls" && isTime) {
        completionOf(rule.fault).calls = static_cast<int>(value);
    } else if (key == "complete_ms" && isTime) {
        completionOf(rule.fault).ms = static_cast<int>(value);
    } else {
        return rule.count.parse(key, value);
    }
    return true;
}

bool CommandRules::matches(const Rule& rule, const CommandFacts& command)
{
    const bool isNamed = rule.name == "*" || rule.name == command.name ||
                         (rule.name == "Command" && command.name != commandName(kMaidCommandAsync));
    return isNamed && (!rule.capability || rule.capability == command.capability) &&
           (!rule.level || rule.level == command.level) &&
           (!rule.object || rule.object == command.object);
}

CommandFault CommandRules::next(const CommandFacts& command)
{
    const auto found =
        virtualcamera::nextRule(m_rules, [&](const Rule& rule) { return matches(rule, command); });
    return found ? found->fault : CommandFault{};
}

}  // namespace virtualnikon
