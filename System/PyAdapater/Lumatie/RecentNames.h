// Which names were given out in the current second, and in a few before it.
#pragma once

#include <ctime>
#include <deque>
#include <string>
#include <unordered_set>
#include <utility>

// Remembers all names of the current second, and the last hundreds of earlier ones, which only a
// clock that is set back can bring up again: a session of many thousands of pictures must not grow
// with them. Not thread-safe.
class RecentNames
{
public:
    static constexpr std::size_t kKept = 256;

    // Notes a name of the second `now`. Returns false when it is remembered already.
    bool add(std::time_t now, const std::string& name);

    std::size_t size() const { return m_names.size(); }

private:
    std::unordered_set<std::string> m_names;
    std::deque<std::pair<std::time_t, std::string>> m_order;  // oldest first
};
