// The tether object's Nikon side.
#pragma once

#include <cstdint>
#include <optional>

namespace nikon {

// A setting as a driver module takes it.
struct NikonSetting {
    std::uint32_t capability;
    std::uint16_t position;  // of the wanted entry in the capability's list, counted from 1
};

// Translates a TETHER_* type and the host's value, of which the low 16 bits count; nothing for a
// type that cannot be set.
std::optional<NikonSetting> nikonSetting(int nType, int value);

// Starts a session through the driver module at `modulePath`. This build drives none yet: it says
// so in the debug log and returns 0.
int NikonInit(const char* modulePath);

}  // namespace nikon
