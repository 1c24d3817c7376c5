// Numbers that the virtual camera chose itself, where the interface leaves them to the module.
#pragma once

#include <cstdint>

#include "Maid.h"

namespace virtualnikon {

// Results other than the interface's; all of them are failures.
namespace result {
constexpr MaidResult kNoObject = -1;      // unknown or closed
constexpr MaidResult kNoCommand = -2;     // not for an object of this level
constexpr MaidResult kNoCapability = -3;  // none of this id, or the operation is not permitted
constexpr MaidResult kWrongData = -4;     // another data type is needed, or the data is missing
constexpr MaidResult kOutOfRange = -5;    // a value that is not offered
constexpr MaidResult kNoChild = -6;       // no child of this id
constexpr MaidResult kOpenAlready = -7;   // the child, or the module
constexpr MaidResult kNoDataProc = -8;    // acquiring without a procedure for the data
constexpr MaidResult kBusy = -9;          // an exposure or a transfer runs
constexpr MaidResult kGone = -10;         // the camera or the picture is not there any more
constexpr MaidResult kAborted = -11;      // the object was closed meanwhile
constexpr MaidResult kUnexpected = -12;
}  // namespace result

// Types of capabilities.
namespace captype {
constexpr std::uint32_t kProcess = 0;
constexpr std::uint32_t kCallback = 8;
}  // namespace captype

namespace mode {
constexpr std::uint32_t kAperture = 1;
constexpr std::uint32_t kSpeed = 2;
constexpr std::uint32_t kManual = 3;
}  // namespace mode

// Instead of a file type: rows of an image.
constexpr std::int32_t kRows = -1;

}  // namespace virtualnikon
