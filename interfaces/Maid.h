// The part of Nikon's MAID driver interface that is used here, declared in our own words.
//
// A driver module is a library with one function, "MAIDEntryPoint", which takes every command.
// Modules show their camera as a tree of objects: the Module, its Sources (cameras), their Items
// (pictures), and the Items' Data objects. Every object has capabilities, which are read, set and
// started. Commands complete at once or later, through a completion procedure; a module runs its
// pending work, and calls back, inside the calls of its entry point.
//
// All records are packed to 2 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(_WIN32) && !defined(_WIN64)
#define MAIDAPI __stdcall
#else
#define MAIDAPI
#endif

static_assert(sizeof(void*) == 8, "The records are known for 64-bit systems only.");

extern "C" {

// Results are signed; 0 and 1 are good.
using MaidResult = std::int32_t;

// Pointer-sized: a value or an address, as the data type says.
using MaidData = std::uintptr_t;

// Handed back as it was given.
using MaidReference = void*;

#pragma pack(push, 2)

// An object. Allocated by the application, filled by the module when the object is opened.
struct MaidObject {
    std::uint32_t type;       // kMaidLevel...
    std::uint32_t id;         // as the parent lists it
    MaidReference clientRef;  // set by the application before the open
    void* moduleRef;          // the module's own
};

constexpr std::size_t kMaidDescriptionSize = 256;

// What an object says of one of its capabilities.
struct MaidCapInfo {
    std::uint32_t id;
    std::uint32_t type;        // kMaidCapType..., others as the module defines
    std::uint32_t visibility;  // bits, as the module defines
    std::uint32_t operations;  // kMaidOperation... bits
    char description[kMaidDescriptionSize];
};

// An enumeration. The module fills all but the array; the application allocates `elements` times
// `elementSize` bytes and has them filled with kMaidCommandGetArray.
struct MaidEnum {
    std::uint32_t elementType;   // kMaidElement...
    std::uint32_t elements;      // for packed texts: bytes of the array
    std::uint32_t value;         // position of the current element, counted from 0
    std::uint32_t defaultValue;  // position of the default element
    std::int16_t elementSize;    // bytes
    void* array;
};

// A procedure for the module to call. `procedure` is one of the types below, or null.
struct MaidCallback {
    void (*procedure)();
    MaidReference reference;
};

// The start of every description that a data procedure gets.
struct MaidDataInfo {
    std::uint32_t kind;  // kMaidData... bits
};

// A part of a file (kMaidDataFile set).
struct MaidFileInfo {
    std::uint32_t kind;
    std::uint32_t fileType;     // kMaidFile...
    std::uint32_t totalLength;  // bytes of the whole file
    std::uint32_t reserved1;
    std::uint32_t length;  // bytes of this part
    std::uint32_t reserved2;
    std::uint32_t removeObject;  // not 0: the item may be removed when the file was taken over
};

// Some rows of an image (kMaidDataFile clear).
struct MaidImageInfo {
    std::uint32_t kind;
    std::uint32_t reserved1;
    std::uint32_t totalRows;
    std::uint32_t reserved2[4];
    std::uint32_t rows;      // in this part
    std::uint32_t rowBytes;  // bytes of one row
    std::uint16_t reserved3[5];
    std::uint16_t removeObject;  // as in MaidFileInfo
};

#pragma pack(pop)

// Called once for each command that was given one, with the command's own arguments.
using MaidCompletionProcedure = void(MAIDAPI*)(MaidObject* object, std::uint32_t command,
                                               std::uint32_t parameter, std::uint32_t dataType,
                                               MaidData data, MaidReference reference,
                                               MaidResult result);

// `event` is kMaidEvent...; `parameter` the id of an object or a capability.
using MaidEventProcedure = void(MAIDAPI*)(MaidReference reference, std::uint32_t event,
                                          MaidData parameter);

// `done` of `total` parts of a command are done; a total of 0 is unknown.
using MaidProgressProcedure = void(MAIDAPI*)(std::uint32_t command, std::uint32_t parameter,
                                             MaidReference reference, std::uint32_t done,
                                             std::uint32_t total);

// Takes over one part of a picture: `info` is a MaidFileInfo or a MaidImageInfo, `data` its bytes.
using MaidDataProcedure = MaidResult(MAIDAPI*)(MaidReference reference, const void* info,
                                               const void* data);

// Asks the user something; 0 is no answer.
using MaidUserInterfaceProcedure = std::uint32_t(MAIDAPI*)(MaidReference reference, void* request);

// The entry point. `object` is null when the Module object is opened; `data` is read as `dataType`
// says; without `completion` the result is the command's outcome.
using MaidEntryPoint = MaidResult(MAIDAPI*)(MaidObject* object, std::uint32_t command,
                                            std::uint32_t parameter, std::uint32_t dataType,
                                            MaidData data, MaidCompletionProcedure completion,
                                            MaidReference reference);

}  // extern "C"

// The entry point's exported name.
constexpr const char* kMaidEntryPointName = "MAIDEntryPoint";

// MaidObject::type.
enum : std::uint32_t {
    kMaidLevelModule = 1,
    kMaidLevelSource = 2,
    kMaidLevelItem = 3,
    kMaidLevelData = 4,
};

// Commands.
enum : std::uint32_t {
    kMaidCommandAsync = 0,  // run pending work
    kMaidCommandOpen = 1,   // parameter: id of the child; data: its MaidObject
    kMaidCommandClose = 2,
    kMaidCommandGetCapCount = 3,  // data: the address of a 32-bit count
    kMaidCommandGetCapInfo = 4,   // parameter: the count; data: that many MaidCapInfo
    kMaidCommandCapStart = 5,     // parameter, here and below: the capability
    kMaidCommandCapSet = 6,
    kMaidCommandCapGet = 7,
    kMaidCommandCapGetArray = 9,    // data: a MaidEnum with its array
    kMaidCommandEnumChildren = 13,  // the module answers with events
};

// Data types.
enum : std::uint32_t {
    kMaidDataTypeNull = 0,
    kMaidDataTypeUnsigned = 3,      // the value itself
    kMaidDataTypeUnsignedPtr = 6,   // a 32-bit unsigned
    kMaidDataTypeCallbackPtr = 13,  // a MaidCallback
    kMaidDataTypeEnumPtr = 16,      // a MaidEnum
    kMaidDataTypeObjectPtr = 17,    // a MaidObject
    kMaidDataTypeCapInfoPtr = 18,   // an array of MaidCapInfo
};

// Results.
enum : MaidResult {
    kMaidOk = 0,
    kMaidPending = 1,
    kMaidFileFailed = -117,
    kMaidOutOfMemory = -118,
    kMaidBufferSize = -124,  // the set of capabilities has changed meanwhile: ask again
};

// MaidCapInfo::type.
enum : std::uint32_t {
    kMaidCapTypeUnsigned = 3,
    kMaidCapTypeEnum = 12,
};

// MaidCapInfo::operations.
enum : std::uint32_t {
    kMaidOperationStart = 0x1,
    kMaidOperationGet = 0x2,
    kMaidOperationSet = 0x4,
    kMaidOperationGetArray = 0x8,
};

// MaidEnum::elementType.
enum : std::uint32_t {
    kMaidElementUnsigned = 2,    // 32-bit numbers
    kMaidElementPackedText = 7,  // texts, each with its terminator, one after the other
    kMaidElementOther = 8,       // nothing that is read here
};

// Capabilities.
enum : std::uint32_t {
    kMaidCapProgressProc = 2,
    kMaidCapEventProc = 3,
    kMaidCapDataProc = 4,
    kMaidCapUserInterfaceProc = 5,
    kMaidCapChildren = 7,    // an enumeration of ids
    kMaidCapDataTypes = 12,  // kMaidItem... bits of an Item
    kMaidCapCapture = 17,
    kMaidCapAcquire = 20,
    kMaidCapFlashMode = 0x35,
    kMaidCapModuleMode = 0x8101,
    kMaidCapImageQuality = 0x8110,
    kMaidCapExposureMode = 0x8111,
    kMaidCapShutterSpeed = 0x8112,
    kMaidCapAperture = 0x8113,
    kMaidCapMeteringMode = 0x8116,
    kMaidCapSensitivity = 0x8117,
    kMaidCapWhiteBalance = 0x8118,
    kMaidCapFocusMode = 0x8120,
    kMaidCapFocusPreferredArea = 0x8122,
    kMaidCapHexNumber = 0x814E,    // shown as a hexadecimal number
    kMaidCapPlainNumber = 0x818C,  // shown as a number
    kMaidCapLiveness = 0x81D7,     // read to see whether the camera still answers
    kMaidCapPictureControl = 0x822E,
    kMaidCapLiveViewZoomRate = 0x823F,
    kMaidCapSourceSetting = 0x8305,  // set to 1 at every start
};

// Bits of kMaidCapDataTypes; the image is also the id of the Item's Data object.
enum : std::uint32_t {
    kMaidItemImage = 0x1,
    kMaidItemMovie = 0x4,
    kMaidItemThumbnail = 0x8,
};

// MaidDataInfo::kind.
enum : std::uint32_t {
    kMaidDataImage = 0x1,
    kMaidDataFile = 0x10,
};

// MaidFileInfo::fileType.
enum : std::uint32_t {
    kMaidFileJpeg = 1,
    kMaidFileTiff = 2,
    kMaidFileNef = 4,
    kMaidFileNdf = 257,
};

// Events, and their parameters.
enum : std::uint32_t {
    kMaidEventAddChild = 0,     // the child's id
    kMaidEventRemoveChild = 1,  // the child's id
    kMaidEventWarmingUp = 2,
    kMaidEventWarmedUp = 3,
    kMaidEventCapChange = 4,  // the list of capabilities has changed
    kMaidEventOrphanedChildren = 5,
    kMaidEventCapChangeValue = 6,  // the capability's id
};

static_assert(sizeof(MaidCapInfo) == 272);
static_assert(offsetof(MaidCapInfo, type) == 4);
static_assert(offsetof(MaidCapInfo, visibility) == 8);
static_assert(offsetof(MaidCapInfo, operations) == 12);
static_assert(offsetof(MaidCapInfo, description) == 16);
static_assert(offsetof(MaidObject, id) == 4);
static_assert(offsetof(MaidObject, clientRef) == 8);
static_assert(offsetof(MaidObject, moduleRef) == 8 + sizeof(void*));
static_assert(sizeof(MaidObject) == 8 + 2 * sizeof(void*));
static_assert(offsetof(MaidEnum, elements) == 4);
static_assert(offsetof(MaidEnum, value) == 8);
static_assert(offsetof(MaidEnum, defaultValue) == 12);
static_assert(offsetof(MaidEnum, elementSize) == 16);
static_assert(offsetof(MaidEnum, array) == 18);
static_assert(sizeof(MaidEnum) == 18 + sizeof(void*));
static_assert(offsetof(MaidCallback, reference) == sizeof(void*));
static_assert(sizeof(MaidCallback) == 2 * sizeof(void*));
static_assert(offsetof(MaidFileInfo, fileType) == 4);
static_assert(offsetof(MaidFileInfo, totalLength) == 8);
static_assert(offsetof(MaidFileInfo, length) == 16);
static_assert(offsetof(MaidFileInfo, removeObject) == 24);
static_assert(sizeof(MaidFileInfo) == 28);
static_assert(offsetof(MaidImageInfo, totalRows) == 8);
static_assert(offsetof(MaidImageInfo, rows) == 28);
static_assert(offsetof(MaidImageInfo, rowBytes) == 32);
static_assert(offsetof(MaidImageInfo, removeObject) == 46);
static_assert(sizeof(MaidImageInfo) == 48);
