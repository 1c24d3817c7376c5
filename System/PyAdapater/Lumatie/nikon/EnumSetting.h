// Reads a setting's list from the camera, and changes the setting.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "TetherEvents.h"
#include "nikon/MaidTree.h"

namespace nikon {

// The settings that are reported by a list, in the order of the reports.
enum class ListSetting : std::uint8_t { shutterSpeed, aperture, sensitivity, whiteBalance };

// A list, and the position in it of the current value, counted from 1; 0: not known.
struct ListReading {
    int index = 0;
    ListText list;
};

// What the camera says of its settings. A text goes to the setting that the capability's
// description names, whichever capability was asked for it; so what is read is added to what is
// there.
struct EnumReadings {
    std::array<ListReading, 4> lists;
    std::string exposureMode;  // the texts of the current values
    std::string imageQuality;

    ListReading& of(ListSetting setting) { return lists[static_cast<std::size_t>(setting)]; }
};

// Reads a capability of the camera in use that is an enumeration into `readings`. Returns false,
// with nothing read, when the camera did not answer or has another kind of enumeration. Any thread.
bool ReadEnumCapability(MaidTree& tree, std::uint32_t capId, EnumReadings& readings);

// Makes a value of a capability of the camera in use the current one: of an enumeration of texts,
// which is asked for first. `position` counts from 1; positions beyond the list's count of elements
// (of bytes, that is), 0 and 65535 are skipped. Returns false when the camera did not answer,
// refuses the change, or has another kind of enumeration. Any thread; both are one step for other
// threads.
bool SetEnumPosition(MaidTree& tree, std::uint32_t capId, std::uint16_t position);

}  // namespace nikon
