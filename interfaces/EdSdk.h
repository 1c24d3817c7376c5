// The part of Canon's EOS Digital SDK that is used here, declared in our own words.
//
// The library is imported by name (EDSDK.dll, libEDSDK.so). Every function returns an EdsError,
// 0 on success, unless noted. A reference that a function hands out is owned by the caller, who
// gives it back with EdsRelease. Camera calls are made from one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(_WIN32) && !defined(_WIN64)
#define EDSAPI __stdcall
#else
#define EDSAPI
#endif

static_assert(sizeof(void*) == 8, "The records are known for 64-bit systems only.");

extern "C" {

using EdsError = std::uint32_t;
using EdsPropertyID = std::uint32_t;
using EdsDataType = std::uint32_t;

// Opaque object references; every one of them may be given to EdsRelease.
using EdsBaseRef = struct EdsObject*;
using EdsCameraListRef = EdsBaseRef;
using EdsCameraRef = EdsBaseRef;
using EdsDirectoryItemRef = EdsBaseRef;
using EdsStreamRef = EdsBaseRef;
using EdsEvfImageRef = EdsBaseRef;

struct EdsPoint {
    std::int32_t x;
    std::int32_t y;
};

struct EdsSize {
    std::int32_t width;
    std::int32_t height;
};

struct EdsRect {
    EdsPoint point;
    EdsSize size;
};

// Room that the host offers for pictures; passed by value.
struct EdsCapacity {
    std::int32_t numberOfFreeClusters;
    std::int32_t bytesPerSector;
    std::int32_t reset;
};

constexpr std::size_t kEdsMaxName = 256;
constexpr std::size_t kEdsMaxDescElements = 128;

// What EdsGetDeviceInfo fills. Newer libraries append the field `reserved`.
struct EdsDeviceInfo {
    char szPortName[kEdsMaxName];
    char szDeviceDescription[kEdsMaxName];  // the model name, e.g. "Canon EOS 80D"
    std::uint32_t deviceSubType;            // 0 on older bodies
    std::uint32_t reserved;
};

// What EdsGetDirectoryItemInfo fills. Newer libraries append the two fields after the name.
struct EdsDirectoryItemInfo {
    std::uint64_t size;  // bytes
    std::int32_t isFolder;
    std::uint32_t groupID;
    std::uint32_t option;
    char szFileName[kEdsMaxName];  // as named on the camera
    std::uint32_t reserved[2];
};

// The values that the camera allows for a property now.
struct EdsPropertyDesc {
    std::int32_t form;
    std::int32_t access;
    std::int32_t numElements;
    std::int32_t propDesc[kEdsMaxDescElements];
};

static_assert(sizeof(EdsPoint) == 8 && sizeof(EdsSize) == 8 && sizeof(EdsRect) == 16);
static_assert(sizeof(EdsCapacity) == 12);
static_assert(sizeof(EdsDeviceInfo) == 520);
static_assert(offsetof(EdsDeviceInfo, szDeviceDescription) == 256);
static_assert(offsetof(EdsDeviceInfo, deviceSubType) == 512);
static_assert(sizeof(EdsDirectoryItemInfo) == 288);
static_assert(offsetof(EdsDirectoryItemInfo, isFolder) == 8);
static_assert(offsetof(EdsDirectoryItemInfo, szFileName) == 20);
static_assert(offsetof(EdsDirectoryItemInfo, reserved) == 276);
static_assert(sizeof(EdsPropertyDesc) == 524);

// Event handlers; they run on whichever thread the library calls them and return 0.
// `context` is the pointer given at registration. The object handler owns `object`.
using EdsPropertyEventHandler = EdsError(EDSAPI*)(std::uint32_t event, EdsPropertyID property,
                                                  std::uint32_t parameter, void* context);
using EdsObjectEventHandler = EdsError(EDSAPI*)(std::uint32_t event, EdsBaseRef object,
                                                void* context);
using EdsStateEventHandler = EdsError(EDSAPI*)(std::uint32_t event, std::uint32_t parameter,
                                               void* context);

// Called during EdsDownload on the downloading thread; `percent` is 0 to 100, and setting
// `*cancel` to non-zero stops the transfer.
using EdsProgressCallback = EdsError(EDSAPI*)(std::uint32_t percent, void* context,
                                              std::int32_t* cancel);

EdsError EDSAPI EdsInitializeSDK();
EdsError EDSAPI EdsTerminateSDK();

EdsError EDSAPI EdsGetCameraList(EdsCameraListRef* list);
EdsError EDSAPI EdsGetChildCount(EdsBaseRef parent, std::uint32_t* count);
EdsError EDSAPI EdsGetChildAtIndex(EdsBaseRef parent, std::int32_t index, EdsBaseRef* child);
EdsError EDSAPI EdsGetDeviceInfo(EdsCameraRef camera, EdsDeviceInfo* info);

// Returns the number of references that remain, 0 when the object was freed.
std::uint32_t EDSAPI EdsRelease(EdsBaseRef object);

EdsError EDSAPI EdsSetPropertyEventHandler(EdsCameraRef camera, std::uint32_t eventClass,
                                           EdsPropertyEventHandler handler, void* context);
EdsError EDSAPI EdsSetObjectEventHandler(EdsCameraRef camera, std::uint32_t eventClass,
                                         EdsObjectEventHandler handler, void* context);
EdsError EDSAPI EdsSetCameraStateEventHandler(EdsCameraRef camera, std::uint32_t eventClass,
                                              EdsStateEventHandler handler, void* context);

EdsError EDSAPI EdsOpenSession(EdsCameraRef camera);
EdsError EDSAPI EdsCloseSession(EdsCameraRef camera);

EdsError EDSAPI EdsGetPropertySize(EdsBaseRef object, EdsPropertyID property,
                                   std::int32_t parameter, EdsDataType* type, std::uint32_t* size);
EdsError EDSAPI EdsGetPropertyData(EdsBaseRef object, EdsPropertyID property,
                                   std::int32_t parameter, std::uint32_t size, void* data);
EdsError EDSAPI EdsGetPropertyDesc(EdsBaseRef object, EdsPropertyID property,
                                   EdsPropertyDesc* description);
EdsError EDSAPI EdsSetPropertyData(EdsBaseRef object, EdsPropertyID property,
                                   std::int32_t parameter, std::uint32_t size, const void* data);

EdsError EDSAPI EdsSendCommand(EdsCameraRef camera, std::uint32_t command, std::int32_t parameter);
EdsError EDSAPI EdsSendStatusCommand(EdsCameraRef camera, std::uint32_t command,
                                     std::int32_t parameter);
EdsError EDSAPI EdsSetCapacity(EdsCameraRef camera, EdsCapacity capacity);

EdsError EDSAPI EdsGetDirectoryItemInfo(EdsDirectoryItemRef item, EdsDirectoryItemInfo* info);
EdsError EDSAPI EdsCreateFileStream(const char* path, std::uint32_t disposition,
                                    std::uint32_t access, EdsStreamRef* stream);
EdsError EDSAPI EdsSetProgressCallback(EdsBaseRef stream, EdsProgressCallback callback,
                                       std::uint32_t option, void* context);
EdsError EDSAPI EdsDownload(EdsDirectoryItemRef item, std::uint64_t size, EdsStreamRef stream);
EdsError EDSAPI EdsDownloadComplete(EdsDirectoryItemRef item);

EdsError EDSAPI EdsCreateMemoryStream(std::uint64_t size, EdsStreamRef* stream);
EdsError EDSAPI EdsCreateEvfImageRef(EdsStreamRef stream, EdsEvfImageRef* image);
EdsError EDSAPI EdsDownloadEvfImage(EdsCameraRef camera, EdsEvfImageRef image);

}  // extern "C"
