#include "common/Rules.h"

#include <algorithm>
#include <limits>

#include "common/Text.h"

namespace virtualcamera {

RuleWord ruleWord(const std::string& word)
{
    const std::size_t sign = word.find('=');
    if (sign == std::string::npos) {
        return {word, ""};
    }
    return {word.substr(0, sign), word.substr(sign + 1)};
}

std::string unknownWord(std::string_view key)
{
    return "unknown word or value: " + std::string(key);
}

bool fitsCode(std::int64_t value)
{
    return value >= 0 && value <= std::numeric_limits<std::uint32_t>::max();
}

bool fitsTime(std::int64_t value)
{
    return value >= 0 && value <= 3600000;
}

bool RuleCount::parse(std::string_view key, std::int64_t value)
{
    if (value < 0) {
        return false;
    }
    if (key == "calls") {
        m_left = value;
        m_forEver = value == 0;
        return true;
    }
    if (key == "skip") {
        m_skip = value;
        return true;
    }
    return false;
}

bool RuleCount::next()
{
    if (m_skip > 0) {
        --m_skip;
        return false;
    }
    if (m_forEver) {
        return true;
    }
    if (m_left == 0) {
        return false;
    }
    --m_left;
    return true;
}

std::string EventTable::add(std::string_view rule)
{
    const std::vector<std::string> parts = words(rule);
    const auto code = parts.empty() ? std::nullopt : integer(parts.front());
    if (parts.empty() || (parts.front() != "*" && (!code || !fitsCode(*code)))) {
        return "an event rule starts with an event's code or *";
    }

    Rule parsed;
    if (code) {
        parsed.event = static_cast<std::uint32_t>(*code);
    }
    for (std::size_t i = 1; i < parts.size(); ++i) {
        const RuleWord word = ruleWord(parts[i]);
        const auto given = integer(word.value);
        if (word.key == "lose" && word.value.empty()) {
            parsed.fate.lost = true;
        } else if (word.key == "double" && word.value.empty()) {
            parsed.fate.doubled = true;
        } else if (word.key == "delay_ms" && given && fitsTime(*given)) {
            parsed.fate.delayMs = static_cast<int>(*given);
        } else if (word.key == "property" && given && fitsCode(*given)) {
            parsed.property = static_cast<std::uint32_t>(*given);
        } else if (!given || !parsed.count.parse(word.key, *given)) {
            return unknownWord(word.key);
        }
    }
    m_rules.push_back(parsed);
    return {};
}

EventFate EventTable::next(std::uint32_t event, std::optional<std::uint32_t> property)
{
    const auto found = nextRule(m_rules, [&](const Rule& rule) {
        return (!rule.event || rule.event == event) &&
               (!rule.property || rule.property == property);
    });
    return found ? found->fate : EventFate{};
}

}  // namespace virtualcamera
