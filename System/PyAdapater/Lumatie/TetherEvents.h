// The texts of the events that the host's callable receives, the same for every camera maker.
//
// An event is a type code and one to three values; lists and status reports travel as texts that
// read like a Python dictionary literal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "EventCodes.h"

// The key words of the texts below.
extern const char* const TETHER_GENERAL_DEVICEBUSY;
extern const char* const TETHER_GENERAL_NEWFILE;
extern const char* const TETHER_GENERAL_WRITEFAIL;
extern const char* const TETHER_NIKON_EDITABLE;

// Canon's codes that a host compares with the keys it receives.
constexpr int TETHER_CANON_COLORTEMP = 9;  // white balance "Color temperature"
constexpr int TETHER_CANON_AUTO = 0;       // "Auto" of every table that has it
constexpr int TETHER_CANON_BULB = 12;      // shutter speed "Bulb"

// "{'GENERAL_DEVICEBUSY':1}"
std::string deviceBusyText();

// What became of a picture: "{'GENERAL_NEWFILE':r'<path>'}", nothing escaped, or, when `lastFile`
// is kLastFileError in any letter case, "{'GENERAL_WRITEFAIL':1}".
std::string pictureText(const std::string& lastFile);

// Builds a list text entry by entry: "{16:'30',19:'25',}". The comma after the last one stays.
class ListText
{
public:
    // Appends <key>:'<text>', with nothing escaped.
    void add(std::uint32_t key, const char* text);

    // Appends <key>:<value>, with the value as a bare number.
    void add(std::uint32_t key, std::int32_t value);

    // Appends '<keyWord>':1 or :0.
    void addFlag(const char* keyWord, bool flag);

    // The whole text, in braces; "{}" when nothing was added.
    std::string text() const;

private:
    // Where the next entry goes, with room for `size` bytes; `setEnd` says how far it went.
    char* room(std::size_t size);
    void setEnd(const char* end);

    std::vector<char> m_entries;  // the first m_size bytes of it
    std::size_t m_size = 0;
};
