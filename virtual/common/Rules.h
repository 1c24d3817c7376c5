// How often rules apply, and which events misbehave, and how: the table behind the event rules.
//
// Not thread-safe: the owner guards them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace virtualcamera {

// A word of a rule: "lose", or "calls" with the value "3".
struct RuleWord {
    std::string key;
    std::string value;
};

RuleWord ruleWord(const std::string& word);

// What is refused when a rule has a word that does not belong there.
std::string unknownWord(std::string_view key);

// Whether a number is a code of 32 bits, and a time in milliseconds that somebody may wait for.
bool fitsCode(std::int64_t value);
bool fitsTime(std::int64_t value);

// What becomes of an event.
struct EventFate {
    bool lost = false;
    bool doubled = false;
    int delayMs = 0;
};

// How often a rule applies: it lets `skip` matches pass and then counts `left` down.
class RuleCount
{
public:
    // Takes "calls=" and "skip="; false when the word is another one.
    bool parse(std::string_view key, std::int64_t value);

    // Counts one match; true when the rule applies to it.
    bool next();

    // True when the rule will never apply again.
    bool isUsedUp() const { return !m_forEver && m_left == 0; }

private:
    std::int64_t m_skip = 0;
    std::int64_t m_left = 1;
    bool m_forEver = false;
};

// The first rule that matches and that applies now, nothing when there is none. Counts it, and
// takes it out of the table when it is used up.
template <typename Rule, typename Matches>
std::optional<Rule> nextRule(std::vector<Rule>& rules, Matches matches)
{
    for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
        if (!matches(*rule) || !rule->count.next()) {
            continue;
        }
        const Rule found = *rule;
        if (rule->count.isUsedUp()) {
            rules.erase(rule);
        }
        return found;
    }
    return std::nullopt;
}

// The fates of events, in the order given; the first that matches and is not used up applies.
class EventTable
{
public:
    // Adds a rule, e.g. "0x208 double". Returns why not, empty when it was added.
    std::string add(std::string_view rule);

    // The fate of this event. Counts the rule.
    EventFate next(std::uint32_t event, std::optional<std::uint32_t> property);

    void clear() { m_rules.clear(); }

private:
    struct Rule {
        std::optional<std::uint32_t> event;
        std::optional<std::uint32_t> property;
        RuleCount count;
        EventFate fate;
    };

    std::vector<Rule> m_rules;
};

}  // namespace virtualcamera
