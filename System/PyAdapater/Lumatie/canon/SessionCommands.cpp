#include "canon/SessionCommands.h"

#include "EdSdkCodes.h"
#include "canon/CameraModel.h"

namespace canon {

namespace {

constexpr std::uint32_t kSaveToHost = 3;
constexpr std::uint32_t kStatusUiLock = 0;
constexpr std::uint32_t kStatusUiUnlock = 1;

// The host's real room is never measured: the camera is always told the maximum.
constexpr EdsCapacity kLargestCapacity = {0x7FFFFFFF, 0x1000, 1};

}  // namespace

bool OpenSessionCommand::execute()
{
    const EdsError error = open();
    if (error != kOk) {
        model().notify("error", error);
    }
    return error == kOk;
}

EdsError OpenSessionCommand::open()
{
    const EdsCameraRef camera = model().camera;
    EdsError error = EdsOpenSession(camera);
    if (error == kOk) {
        error = EdsSetPropertyData(camera, kPropSaveTo, 0, sizeof kSaveToHost, &kSaveToHost);
    }
    if (error == kOk) {
        error = EdsSendStatusCommand(camera, kStatusUiLock, 0);
    }
    if (error == kOk) {
        error = EdsSetCapacity(camera, kLargestCapacity);
        EdsSendStatusCommand(camera, kStatusUiUnlock, 0);
    }
    return error;
}

bool CloseSessionCommand::execute()
{
    const EdsError error = EdsCloseSession(model().camera);
    if (error != kOk) {
        model().notify("error", error);
    }
    return true;
}

}  // namespace canon
