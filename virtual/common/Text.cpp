#include "common/Text.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <locale>
#include <sstream>

namespace virtualcamera {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

int digitOf(char letter)
{
    if (letter >= '0' && letter <= '9') {
        return letter - '0';
    }
    if (letter >= 'a' && letter <= 'f') {
        return letter - 'a' + 10;
    }
    if (letter >= 'A' && letter <= 'F') {
        return letter - 'A' + 10;
    }
    return 16;
}

}  // namespace

std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::vector<std::string> words(std::string_view text)
{
    std::vector<std::string> found;
    text = trimmed(text);
    while (!text.empty()) {
        const std::size_t end = std::min(text.find_first_of(kBlanks), text.size());
        found.emplace_back(text.substr(0, end));
        text = trimmed(text.substr(end));
    }
    return found;
}

std::optional<std::int64_t> integer(std::string_view text)
{
    text = trimmed(text);
    const bool negative = !text.empty() && text.front() == '-';
    if (negative) {
        text.remove_prefix(1);
    }
    const bool isHexadecimal = text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
    if (isHexadecimal) {
        text.remove_prefix(2);
    }
    if (text.empty()) {
        return std::nullopt;
    }

    const int base = isHexadecimal ? 16 : 10;
    std::int64_t value = 0;
    for (const char letter : text) {
        const int digit = digitOf(letter);
        if (digit >= base || value > (std::numeric_limits<std::int64_t>::max() - digit) / base) {
            return std::nullopt;
        }
        value = value * base + digit;
    }
    return negative ? -value : value;
}

std::optional<double> number(std::string_view text)
{
    if (const auto whole = integer(text)) {
        return static_cast<double>(*whole);
    }
    std::istringstream stream{std::string(trimmed(text))};
    stream.imbue(std::locale::classic());
    double value = 0;
    stream >> value;
    if (stream.fail() || !stream.eof() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::string hexadecimal(std::uint64_t value)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), "0123456789ABCDEF"[value % 16]);
        value /= 16;
    } while (value != 0);
    return "0x" + digits;
}

std::string fixedPoint(double value, int digits)
{
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream.setf(std::ios::fixed);
    stream.precision(digits);
    stream << value;
    return stream.str();
}

std::string textFrom(const char* text)
{
    return text == nullptr ? "" : text;
}

int copyOut(std::string_view text, char* buffer, int capacity)
{
    if (buffer != nullptr && capacity > 0) {
        const std::size_t length = std::min(text.size(), static_cast<std::size_t>(capacity) - 1);
        std::memcpy(buffer, text.data(), length);
        buffer[length] = '\0';
    }
    return static_cast<int>(text.size());
}

std::int64_t copyOut(const void* bytes, std::size_t size, void* buffer, std::int64_t capacity)
{
    if (buffer != nullptr && capacity > 0 && size > 0) {
        std::memcpy(buffer, bytes, std::min(size, static_cast<std::size_t>(capacity)));
    }
    return static_cast<std::int64_t>(size);
}

}  // namespace virtualcamera
