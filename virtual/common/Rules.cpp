#include "common/Rules.h"

#include <algorithm>
#include <limits>

#include "common/Text.h"

namespace steering {

namespace {

struct Word {
    std::string key;
    std::string value;
};

Word split(const std::string& word)
{
    const std::size_t sign = word.find('=');
    if (sign == std::string::npos) {
        return {word, ""};
    }
    return {word.substr(0, sign), word.substr(sign + 1)};
}

bool fitsCode(std::int64_t value)
{
    return value >= 0 && value <= std::numeric_limits<std::uint32_t>::max();
}

bool fitsTime(std::int64_t value)
{
    return value >= 0 && value <= 3600000;
}

std::string unknownWord(std::string_view key)
{
    return "unknown word or value: " + std::string(key);
}

}  // namespace

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

std::string FaultTable::add(std::string_view rule)
{
    const std::vector<std::string> parts = words(rule);
    if (parts.empty()) {
        return "a fault rule starts with a function's name";
    }

    Rule parsed;
    parsed.function = parts.front();
    for (std::size_t i = 1; i < parts.size(); ++i) {
        const Word word = split(parts[i]);
        std::string problem = parse(word.key, word.value, parsed);
        if (!problem.empty()) {
            return problem;
        }
    }
    m_rules.push_back(parsed);
    return {};
}

std::string FaultTable::parse(std::string_view key, std::string_view value, Rule& rule)
{
    if (key == "after" || key == "hang" || key == "unplug" || key == "thread") {
        if (!value.empty()) {
            return unknownWord(key);
        }
        rule.fault.after |= key == "after";
        rule.fault.hang |= key == "hang";
        rule.fault.unplug |= key == "unplug";
        rule.onEventThread |= key == "thread";
        return {};
    }

    const auto given = integer(value);
    if (!given) {
        return unknownWord(key);
    }
    if (key == "code" && fitsCode(*given)) {
        rule.fault.code = static_cast<std::uint32_t>(*given);
    } else if (key == "delay_ms" && fitsTime(*given)) {
        rule.fault.delayMs = static_cast<int>(*given);
    } else if (key == "percent" && *given >= 0 && *given <= 100) {
        rule.fault.percent = static_cast<int>(*given);
    } else if (key == "property" && fitsCode(*given)) {
        rule.property = static_cast<std::uint32_t>(*given);
    } else if (key == "command" && fitsCode(*given)) {
        rule.command = static_cast<std::uint32_t>(*given);
    } else if (key == "parameter") {
        rule.parameter = *given;
    } else if (!rule.count.parse(key, *given)) {
        return unknownWord(key);
    }
    return {};
}

bool FaultTable::matches(const Rule& rule, const CallFacts& call)
{
    return (rule.function == "*" || rule.function == call.function) &&
           (!rule.property || rule.property == call.property) &&
           (!rule.command || rule.command == call.command) &&
           (!rule.parameter || rule.parameter == call.parameter) &&
           (!rule.onEventThread || call.onEventThread);
}

Fault FaultTable::next(const CallFacts& call)
{
    const auto found = nextRule(m_rules, [&](const Rule& rule) { return matches(rule, call); });
    return found ? found->fault : Fault{};
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
        const Word word = split(parts[i]);
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

}  // namespace steering
