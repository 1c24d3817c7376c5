// Named numbers and texts that can be set by "key = value" lines.
//
// Not thread-safe: the owner guards it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace virtualcamera {

// A table of names for the variables of a record. The record outlives the table.
class Settings
{
public:
    // A whole number from `lowest` to `highest`.
    void add(const char* key, std::int64_t& value, std::int64_t lowest, std::int64_t highest);

    // A number with a fraction, from `lowest` to `highest`.
    void add(const char* key, double& value, double lowest, double highest);

    // A text. `take` sets it, and returns why not, empty when it was set.
    using Take = std::function<std::string(const std::string&)>;
    void add(const char* key, const std::string& value, Take take);

    // True when there is a setting of this name.
    bool has(std::string_view key) const;

    // Sets one. Returns why not, empty when it was set.
    std::string set(std::string_view key, std::string_view value);

    // All of them, a "key = value" line each.
    std::string text() const;

private:
    struct Entry {
        std::int64_t* whole = nullptr;
        double* fraction = nullptr;
        const std::string* text = nullptr;
        Take take;
        double lowest = 0;
        double highest = 0;
    };

    std::map<std::string, Entry, std::less<>> m_entries;
};

// One line of a settings text: a section "[camera 1]", or a key and a value, or nothing at all.
struct SettingLine {
    std::string section;
    std::string key;
    std::string value;
    bool isBad = false;
};

// Reads one line; "#" starts a comment line.
SettingLine parseSettingLine(std::string_view line);

}  // namespace virtualcamera
