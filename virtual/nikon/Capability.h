// A capability as a driver module describes it: what it is, what may be done with it, its value.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace virtualnikon {

using Bytes = std::vector<std::uint8_t>;

struct Capability {
    std::uint32_t id = 0;
    std::uint32_t type = 0;
    std::uint32_t operations = 0;
    std::string description;

    std::uint32_t number = 0;  // the value of a number

    // An enumeration holds texts or numbers, and the position of the current one counted from 0.
    std::uint32_t elementType = 0;
    std::vector<std::string> texts;
    std::vector<std::uint32_t> numbers;
    std::uint32_t current = 0;

    bool isText() const;

    // How many values there are to choose from.
    std::size_t choices() const { return isText() ? texts.size() : numbers.size(); }

    // The bytes of the array: texts one after another, each with its terminator, or numbers.
    Bytes packed() const;
    std::int16_t elementSize() const { return isText() ? 1 : 4; }

    // The text at the current position, empty when there is none.
    std::string currentText() const;
};

Capability makeNumber(std::uint32_t id, std::uint32_t operations, std::string description,
                      std::uint32_t number = 0);
Capability makeTexts(std::uint32_t id, std::uint32_t operations, std::string description,
                     std::vector<std::string> texts, std::uint32_t current = 0);
Capability makeNumbers(std::uint32_t id, std::uint32_t operations, std::string description,
                       std::vector<std::uint32_t> numbers, std::uint32_t current = 0);

// A procedure that the application installs, or a process that it starts.
Capability makePlain(std::uint32_t id, std::uint32_t type, std::uint32_t operations,
                     std::string description);

// What the objects of one level tell wrongly about one capability.
struct Corruption {
    bool isAbsent = false;
    bool isUnterminated = false;  // the description fills its field without a terminator
    std::optional<std::string> description;
    std::optional<std::uint32_t> type;
    std::optional<std::uint32_t> operations;
    std::optional<std::uint32_t> count;  // of elements; of descriptors for kAllCapabilities
    std::optional<std::uint32_t> elementType;
    std::optional<std::int16_t> elementSize;
    std::optional<std::uint32_t> current;  // the current position, or the number
    int openTexts = 0;                     // 1: the last text has no end, 2: no text has one

    // Sets one by its name in a settings line, "count" for example; `value` is "own" to take it
    // back. Returns why not, empty when it was set.
    std::string set(const std::string& what, const std::string& value);

    // True when the descriptors themselves are told differently.
    static bool isOfDescriptor(const std::string& what);
};

// In place of a capability: the set of descriptors as a whole.
constexpr std::uint32_t kAllCapabilities = 0xFFFFFFFF;

// By level and capability.
using Corruptions = std::map<std::pair<std::uint32_t, std::uint32_t>, Corruption>;

// `size` bytes made of `bytes` over and over; zeros when there are none.
Bytes repeated(const Bytes& bytes, std::size_t size);

}  // namespace virtualnikon
