// Reads a setting's list from the camera, and changes the setting.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "TetherEvents.h"
#include "nikon/MaidTree.h"

namespace nikon {

// What the camera says of one setting.
struct EnumReading {
    int index = 0;                    // of the current value, counted from 1; 0: not known
    ListText list;                    // the values of a setting that has a list event
    std::optional<std::string> text;  // the current value of one that is reported by its text
};

// Reads a capability of the camera in use that is an enumeration into `reading`. With `position`,
// counted from 1, it makes that value the current one afterwards: positions beyond the list's count
// of elements (for lists of texts: of bytes), 0 and 65535 are skipped. Returns false when the
// camera did not answer, refuses the change, or has another kind of enumeration; `reading` holds
// what was read before. Any thread; reading and changing are one step for other threads.
bool ReadEnumCapability(MaidTree& tree, std::uint32_t capId, std::optional<std::uint16_t> position,
                        EnumReading& reading);

}  // namespace nikon
