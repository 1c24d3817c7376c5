#include "canon/EventHandlers.h"

#include <cstdint>

#include "EdSdkCodes.h"
#include "Memory.h"
#include "canon/CameraController.h"

namespace canon {

namespace {

// Event classes to register for.
constexpr std::uint32_t kAllPropertyEvents = 0x100;
constexpr std::uint32_t kAllObjectEvents = 0x200;
constexpr std::uint32_t kAllStateEvents = 0x300;

// Events that are acted on.
constexpr std::uint32_t kPropertyChanged = 0x101;
constexpr std::uint32_t kPropertyDescChanged = 0x102;
constexpr std::uint32_t kNewPicture = 0x208;
constexpr std::uint32_t kShutDown = 0x301;

void perform(void* context, const char* action, void* argument)
{
    doOrGiveUp(action, [&] {
        static_cast<CameraController*>(context)->actionPerformed(ActionEvent(action, argument));
    });
}

EdsError EDSAPI handlePropertyEvent(std::uint32_t event, EdsPropertyID property,
                                    std::uint32_t /*parameter*/, void* context)
{
    if (event == kPropertyChanged) {
        perform(context, "get_Property", &property);
    } else if (event == kPropertyDescChanged) {
        perform(context, "get_PropertyDesc", &property);
    }
    return kOk;
}

EdsError EDSAPI handleObjectEvent(std::uint32_t event, EdsBaseRef object, void* context)
{
    if (event == kNewPicture) {
        perform(context, "download", object);
    } else if (object != nullptr) {
        EdsRelease(object);
    }
    return kOk;
}

EdsError EDSAPI handleStateEvent(std::uint32_t event, std::uint32_t /*parameter*/, void* context)
{
    if (event == kShutDown) {
        perform(context, "shutDown", nullptr);
    }
    return kOk;
}

}  // namespace

void registerEventHandlers(EdsCameraRef camera, CameraController& controller)
{
    EdsError error =
        EdsSetPropertyEventHandler(camera, kAllPropertyEvents, handlePropertyEvent, &controller);
    if (error == kOk) {
        error = EdsSetObjectEventHandler(camera, kAllObjectEvents, handleObjectEvent, &controller);
    }
    if (error == kOk) {
        EdsSetCameraStateEventHandler(camera, kAllStateEvents, handleStateEvent, &controller);
    }
}

}  // namespace canon
