#include "TetherEvents.h"

#include "TetherTexts.h"
#include "Text.h"

const char* const TETHER_GENERAL_DEVICEBUSY = "GENERAL_DEVICEBUSY";
const char* const TETHER_GENERAL_NEWFILE = "GENERAL_NEWFILE";
const char* const TETHER_GENERAL_WRITEFAIL = "GENERAL_WRITEFAIL";
const char* const TETHER_NIKON_EDITABLE = "NIKON_EDITABLE";

namespace {

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
    m_entries += std::to_string(key) + ":'" + text + "',";
}

void ListText::add(std::uint32_t key, std::int32_t value)
{
    m_entries += std::to_string(key) + ":" + std::to_string(value) + ",";
}

void ListText::addFlag(const char* keyWord, bool flag)
{
    m_entries += std::string("'") + keyWord + "':" + (flag ? "1" : "0") + ",";
}
