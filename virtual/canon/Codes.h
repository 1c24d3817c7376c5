// The numbers of the interface: results, properties, events, commands.
#pragma once

#include <cstdint>

namespace virtualcanon {

namespace result {
constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kInternal = 0x02;  // also: the library is not initialised
constexpr std::uint32_t kOutOfMemory = 0x03;
constexpr std::uint32_t kCancelled = 0x05;
constexpr std::uint32_t kTooManyFiles = 0x21;
constexpr std::uint32_t kFileNotFound = 0x22;
constexpr std::uint32_t kFileNotOpened = 0x23;
constexpr std::uint32_t kFileWrite = 0x28;
constexpr std::uint32_t kFilePermission = 0x29;
constexpr std::uint32_t kDiskFull = 0x2A;
constexpr std::uint32_t kFileExists = 0x2B;
constexpr std::uint32_t kPropertyUnavailable = 0x50;
constexpr std::uint32_t kInvalidParameter = 0x60;
constexpr std::uint32_t kInvalidHandle = 0x61;
constexpr std::uint32_t kInvalidPointer = 0x62;
constexpr std::uint32_t kInvalidIndex = 0x63;
constexpr std::uint32_t kInvalidLength = 0x64;
constexpr std::uint32_t kDeviceNotFound = 0x80;
constexpr std::uint32_t kDeviceBusy = 0x81;
constexpr std::uint32_t kSessionNotOpen = 0x2003;
constexpr std::uint32_t kSessionAlreadyOpen = 0x201E;
constexpr std::uint32_t kFocusFailed = 0x8D01;
constexpr std::uint32_t kFrameNotReady = 0xA102;
constexpr std::uint32_t kNoReference = 0xFFFFFFFF;  // EdsRelease of what is no reference
}  // namespace result

namespace property {
constexpr std::uint32_t kProductName = 0x2;
constexpr std::uint32_t kSaveTo = 0xB;
constexpr std::uint32_t kQuality = 0x100;
constexpr std::uint32_t kFocusInfo = 0x104;
constexpr std::uint32_t kWhiteBalance = 0x106;
constexpr std::uint32_t kColorTemperature = 0x107;
constexpr std::uint32_t kIso = 0x402;
constexpr std::uint32_t kMetering = 0x403;
constexpr std::uint32_t kAv = 0x405;
constexpr std::uint32_t kTv = 0x406;
constexpr std::uint32_t kCompensation = 0x407;
constexpr std::uint32_t kMode = 0x436;
constexpr std::uint32_t kEvfOutput = 0x500;
constexpr std::uint32_t kEvfMode = 0x501;
constexpr std::uint32_t kEvfDepthOfField = 0x504;
constexpr std::uint32_t kEvfZoom = 0x507;
constexpr std::uint32_t kEvfZoomPosition = 0x508;
constexpr std::uint32_t kEvfHistogram = 0x50A;
constexpr std::uint32_t kEvfImagePosition = 0x50B;
constexpr std::uint32_t kEvfAfMode = 0x50E;
constexpr std::uint32_t kEvfCoordinates = 0x540;
constexpr std::uint32_t kEvfZoomRect = 0x541;
}  // namespace property

namespace type {
constexpr std::uint32_t kText = 2;
constexpr std::uint32_t kNumber = 9;
constexpr std::uint32_t kBytes = 14;
constexpr std::uint32_t kSize = 22;
constexpr std::uint32_t kPoint = 23;
constexpr std::uint32_t kRect = 24;
constexpr std::uint32_t kFocusInfo = 101;
}  // namespace type

namespace event {
constexpr std::uint32_t kPropertyChanged = 0x101;
constexpr std::uint32_t kListChanged = 0x102;
constexpr std::uint32_t kItemCreated = 0x204;
constexpr std::uint32_t kTransferRequested = 0x208;
constexpr std::uint32_t kShutdown = 0x301;
}  // namespace event

namespace command {
constexpr std::uint32_t kTakePicture = 0;
constexpr std::uint32_t kShutterButton = 4;
constexpr std::uint32_t kAutofocus = 0x102;
constexpr std::uint32_t kDriveLens = 0x103;
}  // namespace command

namespace mode {
constexpr std::uint32_t kProgram = 0;
constexpr std::uint32_t kTv = 1;
constexpr std::uint32_t kAv = 2;
constexpr std::uint32_t kManual = 3;
constexpr std::uint32_t kBulb = 4;
constexpr std::uint32_t kCustom1 = 7;
constexpr std::uint32_t kCustom2 = 0x10;
constexpr std::uint32_t kCustom3 = 0x11;
}  // namespace mode

constexpr std::uint32_t kTvBulb = 0x0C;
constexpr std::uint32_t kUnknownValue = 0xFFFFFFFF;
constexpr std::uint32_t kEvfToHost = 0x2;  // bit of kEvfOutput
constexpr std::uint32_t kWhiteBalanceTemperature = 9;
constexpr std::size_t kFocusInfoSize = 19224;

}  // namespace virtualcanon
