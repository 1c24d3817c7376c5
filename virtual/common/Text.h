// Small texts: what settings, rules and log lines are made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace virtualcamera {

// The text without blanks at both ends.
std::string_view trimmed(std::string_view text);

// The words of a text, separated by blanks.
std::vector<std::string> words(std::string_view text);

// A whole number, decimal or hexadecimal with 0x, with an optional minus; nothing for other texts.
std::optional<std::int64_t> integer(std::string_view text);

// A number with an optional fraction; nothing for other texts.
std::optional<double> number(std::string_view text);

// "0x406"
std::string hexadecimal(std::uint64_t value);

// A number with that many digits behind the point; the point is a point in every locale.
std::string fixedPoint(double value, int digits);

// A text of the C interface, empty for null.
std::string textFrom(const char* text);

// Copies `text` as the C interface promises: cut to `capacity` bytes, always terminated. Returns
// the length of the whole text.
int copyOut(std::string_view text, char* buffer, int capacity);

// Copies bytes, up to `capacity` of them, and returns how many there are.
std::int64_t copyOut(const void* bytes, std::size_t size, void* buffer, std::int64_t capacity);

}  // namespace virtualcamera
