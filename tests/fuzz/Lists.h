// The texts that the host receives, built and taken apart once more, in another way than the module
// does it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fuzz {

// An entry of a list text: the key and the value as they stand, quotes included.
using Entries = std::vector<std::pair<std::string, std::string>>;

// Texts that lie one after the other, each with its terminator; the last one may lack it.
inline std::vector<std::string> splitTexts(const std::vector<unsigned char>& bytes)
{
    std::vector<std::string> texts;
    bool isOpen = false;
    for (const unsigned char byte : bytes) {
        if (!isOpen) {
            texts.emplace_back();
        }
        isOpen = byte != 0;
        if (isOpen) {
            texts.back() += static_cast<char>(byte);
        }
    }
    return texts;
}

inline std::string joinEntries(const Entries& entries)
{
    std::string text = "{";
    for (const auto& entry : entries) {
        text += entry.first;
        text += ':';
        text += entry.second;
        text += ',';
    }
    return text + '}';
}

// Takes a list text apart; nothing when it does not read like one. The texts in it may hold
// anything but quotes.
inline std::optional<Entries> parseList(const std::string& text)
{
    if (text.size() < 2 || text.front() != '{' || text.back() != '}') {
        return std::nullopt;
    }
    const auto take = [&text](std::size_t& at, char end) -> std::optional<std::string> {
        const bool isQuoted = text[at] == '\'';
        const std::size_t last = isQuoted ? text.find('\'', at + 1) : text.find(end, at);
        const std::size_t stop = isQuoted && last != std::string::npos ? last + 1 : last;
        if (stop >= text.size() || text[stop] != end) {
            return std::nullopt;
        }
        std::string part = text.substr(at, stop - at);
        at = stop + 1;
        return part;
    };
    Entries entries;
    for (std::size_t at = 1; at < text.size() - 1;) {
        const std::optional<std::string> key = take(at, ':');
        const std::optional<std::string> value = key ? take(at, ',') : std::nullopt;
        if (!value) {
            return std::nullopt;
        }
        entries.emplace_back(*key, *value);
    }
    return entries;
}

inline bool hasQuote(const std::string& text)
{
    return text.find('\'') != std::string::npos;
}

}  // namespace fuzz
