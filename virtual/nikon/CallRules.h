// Which commands misbehave, and how: the table behind VirtualNikonFault.
//
// Not thread-safe: the owner guards it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Rules.h"

namespace virtualnikon {

// A command as the rules see it.
struct CommandFacts {
    std::string_view name;
    std::optional<std::uint32_t> capability;
    std::uint32_t level = 0;
    std::uint32_t object = 0;
};

// When and how a command's completion procedure is called.
struct Completion {
    std::optional<std::int32_t> result;  // another one than the command's
    int calls = 0;                       // in this many calls to run pending work
    int ms = 0;                          // not before that time
    bool isOnThread = false;             // on a thread of the library
    bool isNever = false;                // only when a test lets it go
    bool isTwice = false;
    bool isDataLate = false;  // the command does its work when it completes

    bool isAtOnce() const { return calls == 0 && ms == 0 && !isOnThread && !isNever; }
};

struct CommandFault {
    std::optional<std::int32_t> code;
    bool isAfter = false;  // do the work, then answer `code`
    bool hangs = false;    // stop until released
    bool unplugs = false;  // the cable is pulled
    int delayMs = 0;
    std::optional<Completion> completion;
};

// The rules in the order given; the first that matches and is not used up applies.
class CommandRules
{
public:
    // Adds a rule, e.g. "CapGet capability=0x8112 code=-124 calls=3". Returns why not, empty when
    // it was added.
    std::string add(std::string_view text);

    // What becomes of this command. Counts the rule.
    CommandFault next(const CommandFacts& command);

    void clear() { m_rules.clear(); }

private:
    struct Rule {
        std::string name;
        std::optional<std::uint32_t> capability;
        std::optional<std::uint32_t> level;
        std::optional<std::uint32_t> object;
        virtualcamera::RuleCount count;
        CommandFault fault;
    };

    static bool parseWord(std::string_view key, Rule& rule);
    static bool parseNumber(std::string_view key, std::int64_t value, Rule& rule);
    static bool matches(const Rule& rule, const CommandFacts& command);

    std::vector<Rule> m_rules;
};

// "module", "source", "item", "data" or their numbers; nothing for other texts.
std::optional<std::uint32_t> levelNamed(std::string_view text);
const char* levelName(std::uint32_t level);

// The commands' names in rules, counts and logs: "CapGet" for example; nothing for other numbers.
const char* commandName(std::uint32_t command);

}  // namespace virtualnikon
