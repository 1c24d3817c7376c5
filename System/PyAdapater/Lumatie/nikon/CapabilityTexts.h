// The display texts of the cameras' numeric settings.
#pragma once

#include <cstdint>
#include <string>

namespace nikon {

// The text of a capability's value; "Undefined String" for a capability that has no texts. A value
// without a text of its own gives a text with its number. Thread-safe.
std::string CapabilityValueText(std::uint32_t capId, std::uint32_t value);

}  // namespace nikon
