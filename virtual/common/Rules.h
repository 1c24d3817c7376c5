// Which calls and which events misbehave, and how: the tables behind the fault and event rules.
//
// Not thread-safe: the owner guards them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace steering {

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
        RuleCount count;
        Fault fault;
    };

    static std::string parse(std::string_view key, std::string_view value, Rule& rule);
    static bool matches(const Rule& rule, const CallFacts& call);

    std::vector<Rule> m_rules;
};

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

}  // namespace steering
