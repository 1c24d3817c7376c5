// Small helpers for the texts of fixed size that the C runtime and the makers' libraries deal in.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Copies `source` with its terminator into `target` of `size` bytes. A null source, or one of
// `size` bytes or more, is never cut: it is handed to platform::rejectText with the words `what`.
void boundedCopy(char* target, std::size_t size, const char* source, const char* what);

// The text in a field of `size` bytes, up to its terminator or, when it has none, the whole field.
std::string fieldText(const char* field, std::size_t size);

// Whether two texts differ in nothing but the case of ASCII letters.
bool equalIgnoringCase(std::string_view left, std::string_view right);
