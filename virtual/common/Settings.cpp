#include "common/Settings.h"

#include <utility>

#include "common/Text.h"

namespace virtualcamera {

void Settings::add(const char* key, std::int64_t& value, std::int64_t lowest, std::int64_t highest)
{
    Entry entry;
    entry.whole = &value;
    entry.lowest = static_cast<double>(lowest);
    entry.highest = static_cast<double>(highest);
    m_entries[key] = entry;
}

void Settings::add(const char* key, double& value, double lowest, double highest)
{
    Entry entry;
    entry.fraction = &value;
    entry.lowest = lowest;
    entry.highest = highest;
    m_entries[key] = entry;
}

void Settings::add(const char* key, const std::string& value, Take take)
{
    Entry entry;
    entry.text = &value;
    entry.take = std::move(take);
    m_entries[key] = std::move(entry);
}

bool Settings::has(std::string_view key) const
{
    return m_entries.find(key) != m_entries.end();
}

std::string Settings::set(std::string_view key, std::string_view value)
{
    const auto found = m_entries.find(key);
    if (found == m_entries.end()) {
        return "no such setting: " + std::string(key);
    }
    const Entry& entry = found->second;
    if (entry.text != nullptr) {
        return entry.take(std::string(value));
    }
    const auto whole = integer(value);
    const auto given = number(value);
    if (!given || (entry.whole != nullptr && !whole)) {
        return std::string(key) + " is a number";
    }
    if (*given < entry.lowest || *given > entry.highest) {
        return std::string(key) + " is out of range";
    }
    if (entry.whole != nullptr) {
        *entry.whole = *whole;
    } else {
        *entry.fraction = *given;
    }
    return {};
}

std::string Settings::text() const
{
    std::string whole;
    for (const auto& [key, entry] : m_entries) {
        const std::string value = entry.text != nullptr    ? *entry.text
                                  : entry.whole != nullptr ? std::to_string(*entry.whole)
                                                           : fixedPoint(*entry.fraction, 6);
        whole.append(key).append(" = ").append(value).append("\n");
    }
    return whole;
}

SettingLine parseSettingLine(std::string_view line)
{
    SettingLine parsed;
    line = trimmed(line);
    if (line.empty() || line.front() == '#') {
        return parsed;
    }
    if (line.front() == '[') {
        parsed.isBad = line.back() != ']';
        parsed.section = std::string(trimmed(line.substr(1, line.size() - 2)));
        return parsed;
    }
    const std::size_t sign = line.find('=');
    parsed.key = std::string(trimmed(line.substr(0, sign)));
    parsed.isBad = sign == std::string_view::npos || parsed.key.empty();
    if (!parsed.isBad) {
        parsed.value = std::string(trimmed(line.substr(sign + 1)));
    }
    return parsed;
}

}  // namespace virtualcamera
