#include "canon/Faults.h"

#include "common/Text.h"

namespace virtualcanon {

using virtualcamera::fitsCode;
using virtualcamera::fitsTime;
using virtualcamera::integer;
using virtualcamera::unknownWord;

std::string FaultTable::add(std::string_view rule)
{
    const std::vector<std::string> parts = virtualcamera::words(rule);
    if (parts.empty()) {
        return "a fault rule starts with a function's name";
    }

    Rule parsed;
    parsed.function = parts.front();
    for (std::size_t i = 1; i < parts.size(); ++i) {
        const virtualcamera::RuleWord word = virtualcamera::ruleWord(parts[i]);
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
    const auto found =
        virtualcamera::nextRule(m_rules, [&](const Rule& rule) { return matches(rule, call); });
    return found ? found->fault : Fault{};
}

}  // namespace virtualcanon
