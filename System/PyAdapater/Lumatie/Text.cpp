#include "Text.h"

#include <algorithm>
#include <cstring>

#include "platform/Platform.h"

namespace {

char toLower(char letter)
{
    const bool isUpper = letter >= 'A' && letter <= 'Z';
    return isUpper ? static_cast<char>(letter - 'A' + 'a') : letter;
}

}  // namespace

void boundedCopy(char* target, std::size_t size, const char* source, const char* what)
{
    if (source == nullptr || std::strlen(source) >= size) {
        platform::rejectText(what);
    }
    std::memcpy(target, source, std::strlen(source) + 1);
}

std::string fieldText(const char* field, std::size_t size)
{
    return {field, std::find(field, field + size, '\0')};
}

bool equalIgnoringCase(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return toLower(a) == toLower(b); });
}
