#include "TetherEvents.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "TetherTexts.h"
#include "Text.h"

const char* const TETHER_GENERAL_DEVICEBUSY = "GENERAL_DEVICEBUSY";
const char* const TETHER_GENERAL_NEWFILE = "GENERAL_NEWFILE";
const char* const TETHER_GENERAL_WRITEFAIL = "GENERAL_WRITEFAIL";
const char* const TETHER_NIKON_EDITABLE = "NIKON_EDITABLE";

namespace {

// Bytes of the longest list that a camera has, about.
constexpr std::size_t kUsualSize = 2048;

// Of a key or value, its sign included.
constexpr std::size_t kMostDigits = 11;

char* put(char* at, const char* text, std::size_t size)
{
    std::memcpy(at, text, size);
    return at + size;
}

template <typename Number>
char* put(char* at, Number number)
{
    return std::to_chars(at, at + kMostDigits, number).ptr;
}

// One key word and its value, as they stand.
std::string statusText(const char* keyWord, const std::string& value)
{
    return std::string("{'") + keyWord + "':" + value + "}";
}

}  // namespace

std::string deviceBusyText()
{
    return statusText(TETHER_GENERAL_DEVICEBUSY, "1");
}

std::string pictureText(const std::string& lastFile)
{
    if (equalIgnoringCase(lastFile, kLastFileError)) {
        return statusText(TETHER_GENERAL_WRITEFAIL, "1");
    }
    return statusText(TETHER_GENERAL_NEWFILE, "r'" + lastFile + "'");
}

void ListText::add(std::uint32_t key, const char* text)
{
    const std::size_t size = std::strlen(text);
    char* end = put(room(kMostDigits + size + 4), key);
    end = put(end, ":'", 2);
    end = put(end, text, size);
    setEnd(put(end, "',", 2));
}

void ListText::add(std::uint32_t key, std::int32_t value)
{
    char* end = put(room(2 * kMostDigits + 2), key);
    end = put(end, ":", 1);
    end = put(end, value);
    setEnd(put(end, ",", 1));
}

void ListText::addFlag(const char* keyWord, bool flag)
{
    const std::size_t size = std::strlen(keyWord);
    char* end = put(room(size + 5), "'", 1);
    end = put(end, keyWord, size);
    setEnd(put(end, flag ? "':1," : "':0,", 4));
}

std::string ListText::text() const
{
    std::string whole;
    whole.reserve(m_size + 2);
    return whole.append("{").append(m_entries.data(), m_size).append("}");
}

char* ListText::room(std::size_t size)
{
    if (m_entries.size() - m_size < size) {
        m_entries.resize(std::max(kUsualSize, 2 * (m_size + size)));
    }
    return m_entries.data() + m_size;
}

void ListText::setEnd(const char* end)
{
    m_size = static_cast<std::size_t>(end - m_entries.data());
}
