// The numbers of Canon's library that more than one file here names.
#pragma once

#include <cstdint>

#include "EdSdk.h"

namespace canon {

// Property ids.
constexpr EdsPropertyID kPropProductName = 0x2;
constexpr EdsPropertyID kPropBatteryQuality = 0x9;
constexpr EdsPropertyID kPropSaveTo = 0xB;
constexpr EdsPropertyID kPropImageQuality = 0x100;
constexpr EdsPropertyID kPropFocusInfo = 0x104;
constexpr EdsPropertyID kPropWhiteBalance = 0x106;
constexpr EdsPropertyID kPropColorTemperature = 0x107;
constexpr EdsPropertyID kPropISOSpeed = 0x402;
constexpr EdsPropertyID kPropMeteringMode = 0x403;
constexpr EdsPropertyID kPropAv = 0x405;
constexpr EdsPropertyID kPropTv = 0x406;
constexpr EdsPropertyID kPropExposureCompensation = 0x407;
constexpr EdsPropertyID kPropAEMode = 0x436;
constexpr EdsPropertyID kPropEvfOutputDevice = 0x500;
constexpr EdsPropertyID kPropEvfMode = 0x501;
constexpr EdsPropertyID kPropEvfDepthOfFieldPreview = 0x504;
constexpr EdsPropertyID kPropEvfZoom = 0x507;
constexpr EdsPropertyID kPropEvfZoomPosition = 0x508;
constexpr EdsPropertyID kPropEvfHistogram = 0x50A;
constexpr EdsPropertyID kPropEvfImagePosition = 0x50B;
constexpr EdsPropertyID kPropEvfAFMode = 0x50E;
constexpr EdsPropertyID kPropEvfCoordinateSystem = 0x540;
constexpr EdsPropertyID kPropEvfZoomRect = 0x541;

// Stands for the whole set of properties that is reported.
constexpr EdsPropertyID kPropReportedSet = 0xFFFF;

// Results.
constexpr EdsError kOk = 0;
constexpr EdsError kInvalidParameter = 0x60;
constexpr EdsError kDeviceNotFound = 0x80;
constexpr EdsError kDeviceBusy = 0x81;
constexpr EdsError kHostDeviceBusy = 0xC0;  // the one that reaches the host as "busy"
constexpr EdsError kFrameNotReady = 0xA102;

// Commands for EdsSendCommand.
constexpr std::uint32_t kCommandTakePicture = 0x0;
constexpr std::uint32_t kCommandPressShutterButton = 0x4;
constexpr std::uint32_t kCommandDoEvfAf = 0x102;
constexpr std::uint32_t kCommandDriveLens = 0x103;

// Shutter button states.
constexpr std::int32_t kShutterOff = 0;
constexpr std::int32_t kShutterHalfway = 1;
constexpr std::int32_t kShutterCompletely = 3;

}  // namespace canon
