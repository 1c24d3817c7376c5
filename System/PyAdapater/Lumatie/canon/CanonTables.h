// Canon's codes for the exposure settings, and the texts that the host shows for them.
#pragma once

#include <cstdint>
#include <map>

namespace canon {

// Display texts by code. A code that is missing is not reported. Several codes may share a text.
using CodeTexts = std::map<std::uint32_t, const char*>;

// One table per setting; constant data, shared by every tether object.
struct CanonTables {
    CodeTexts m_mapAEMode;   // exposure modes, property 0x436
    CodeTexts m_mapTv;       // shutter speeds in seconds, property 0x406
    CodeTexts m_mapAv;       // apertures as f-numbers, property 0x405
    CodeTexts m_mapISO;      // ISO speeds, property 0x402
    CodeTexts m_mapWB;       // white balances, property 0x106
    CodeTexts m_mapQuality;  // image qualities, property 0x100
};

// The filled tables. Thread-safe.
const CanonTables& canonTables();

// The text for `code`, with static lifetime; null when the table lacks it.
const char* findText(const CodeTexts& table, std::uint32_t code);

}  // namespace canon
