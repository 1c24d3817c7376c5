// Which calls misbehave, and how: the table behind the fault rules.
//
// Not thread-safe: the world guards it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Rules.h"

namespace virtualcanon {

// A call as the rules see it.
struct CallFacts {
    std::string_view function;
    std::optional<std::uint32_t> property;
    std::optional<std::uint32_t> command;
    std::optional<std::int64_t> parameter;
    bool onEventThread = false;
};

// What a call does instead of, or before, its work.
struct Fault {
    std::optional<std::uint32_t> code;
    bool after = false;   // do the work, then answer `code`
    bool hang = false;    // stop until released
    bool unplug = false;  // the cable is pulled
    int delayMs = 0;
    int percent = -1;  // of a download: when it happens; -1 at the start
};

// The faults of calls, in the order given; the first that matches and is not used up applies.
class FaultTable
{
public:
    // Adds a rule, e.g. "EdsDownload code=0x81 calls=3". Returns why not, empty when it was added.
    std::string add(std::string_view rule);

    // The fault for this call, an empty one when no rule applies. Counts the rule.
    Fault next(const CallFacts& call);

    void clear() { m_rules.clear(); }

private:
    struct Rule {
        std::string function;
        std::optional<std::uint32_t> property;
        std::optional<std::uint32_t> command;
        std::optional<std::int64_t> parameter;
        bool onEventThread = false;
        virtualcamera::RuleCount count;
        Fault fault;
    };

    static std::string parse(std::string_view key, std::string_view value, Rule& rule);
    static bool matches(const Rule& rule, const CallFacts& call);

    std::vector<Rule> m_rules;
};

}  // namespace virtualcanon
