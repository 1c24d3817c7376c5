#include "nikon/Capability.h"

#include <algorithm>
#include <cstring>

#include "common/Text.h"
#include "nikon/Codes.h"

namespace virtualnikon {

bool Capability::isText() const
{
    return elementType == kMaidElementPackedText;
}

Bytes Capability::packed() const
{
    Bytes bytes;
    if (isText()) {
        for (const std::string& text : texts) {
            bytes.insert(bytes.end(), text.begin(), text.end());
            bytes.push_back(0);
        }
        return bytes;
    }
    bytes.resize(numbers.size() * sizeof(std::uint32_t));
    if (!numbers.empty()) {
        std::memcpy(bytes.data(), numbers.data(), bytes.size());
    }
    return bytes;
}

std::string Capability::currentText() const
{
    return current < texts.size() ? texts[current] : std::string();
}

Capability makePlain(std::uint32_t id, std::uint32_t type, std::uint32_t operations,
                     std::string description)
{
    Capability made;
    made.id = id;
    made.type = type;
    made.operations = operations;
    made.description = std::move(description);
    return made;
}

Capability makeNumber(std::uint32_t id, std::uint32_t operations, std::string description,
                      std::uint32_t number)
{
    Capability made = makePlain(id, kMaidCapTypeUnsigned, operations, std::move(description));
    made.number = number;
    return made;
}

Capability makeTexts(std::uint32_t id, std::uint32_t operations, std::string description,
                     std::vector<std::string> texts, std::uint32_t current)
{
    Capability made = makePlain(id, kMaidCapTypeEnum, operations, std::move(description));
    made.elementType = kMaidElementPackedText;
    made.texts = std::move(texts);
    made.current = current;
    return made;
}

Capability makeNumbers(std::uint32_t id, std::uint32_t operations, std::string description,
                       std::vector<std::uint32_t> numbers, std::uint32_t current)
{
    Capability made = makePlain(id, kMaidCapTypeEnum, operations, std::move(description));
    made.elementType = kMaidElementUnsigned;
    made.numbers = std::move(numbers);
    made.current = current;
    return made;
}

std::string Corruption::set(const std::string& what, const std::string& value)
{
    const bool isOwn = value == "own";
    if (what == "description") {
        description = isOwn ? std::nullopt : std::optional(value);
        return {};
    }
    const auto given = virtualcamera::integer(value);
    if (!isOwn && (!given || *given < -0x80000000LL || *given > 0xFFFFFFFFLL)) {
        return "a corruption is a number of 32 bits, or \"own\"";
    }
    const auto number =
        isOwn ? std::nullopt : std::optional(static_cast<std::uint32_t>(*given & 0xFFFFFFFFLL));
    const std::map<std::string, std::optional<std::uint32_t>*> numbers{
        {"type", &type},     {"operations", &operations},    {"count", &count},
        {"value", &current}, {"element_type", &elementType},
    };
    const auto found = numbers.find(what);
    if (found != numbers.end()) {
        *found->second = number;
    } else if (what == "element_size") {
        elementSize = isOwn ? std::nullopt : std::optional(static_cast<std::int16_t>(*given));
    } else if (what == "open_texts") {
        openTexts = isOwn ? 0 : static_cast<int>(std::clamp<std::int64_t>(*given, 0, 2));
    } else if (what == "absent") {
        isAbsent = !isOwn && *given != 0;
    } else if (what == "unterminated") {
        isUnterminated = !isOwn && *given != 0;
    } else {
        return "no such corruption: " + what;
    }
    return {};
}

bool Corruption::isOfDescriptor(const std::string& what)
{
    return what == "description" || what == "type" || what == "operations" || what == "absent" ||
           what == "unterminated";
}

Bytes repeated(const Bytes& bytes, std::size_t size)
{
    Bytes whole(size);
    if (bytes.empty()) {
        return whole;
    }
    for (std::size_t at = 0; at < size; at += bytes.size()) {
        std::copy_n(bytes.begin(), std::min(bytes.size(), size - at),
                    whole.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return whole;
}

}  // namespace virtualnikon
