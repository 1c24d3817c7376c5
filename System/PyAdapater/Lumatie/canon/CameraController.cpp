#include "canon/CameraController.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>

#include "EdSdkCodes.h"
#include "canon/DownloadCommand.h"
#include "canon/EvfCommands.h"
#include "canon/PropertyCommands.h"
#include "canon/SessionCommands.h"
#include "canon/ShootingCommands.h"

namespace canon {

namespace {

using CommandPtr = std::unique_ptr<Command>;

// Makes the command of an action from the model and the action's argument.
using Factory = CommandPtr (*)(CameraModel& model, void* argument);

struct Action {
    const char* name;
    Factory makeCommand;
};

// The distance, in live-view coordinates, of one step of a focus move.
constexpr std::int32_t kFocusStep = 128;

constexpr std::uint32_t kZoomFit = 1;
constexpr std::uint32_t kZoomIn = 5;
constexpr std::int32_t kFar = 0x8000;  // bit of a lens-drive code
constexpr std::int32_t kAutofocusOff = 0;
constexpr std::int32_t kAutofocusOn = 1;

std::uint32_t number(void* argument)
{
    return *static_cast<const std::uint32_t*>(argument);
}

template <typename CommandType>
CommandPtr plain(CameraModel& model, void* /*argument*/)
{
    return std::make_unique<CommandType>(model);
}

template <EdsPropertyID property>
CommandPtr setNumber(CameraModel& model, void* argument)
{
    return std::make_unique<SetPropertyCommand<std::uint32_t>>(model, property, number(argument));
}

template <std::uint32_t zoom>
CommandPtr setZoom(CameraModel& model, void* /*argument*/)
{
    return std::make_unique<SetPropertyCommand<std::uint32_t>>(model, kPropEvfZoom, zoom);
}

template <std::int32_t button>
CommandPtr pressShutter(CameraModel& model, void* /*argument*/)
{
    return std::make_unique<PressShutterButtonCommand>(model, button);
}

template <std::int32_t drive>
CommandPtr driveLens(CameraModel& model, void* /*argument*/)
{
    return std::make_unique<DriveLensCommand>(model, drive);
}

template <std::int32_t on>
CommandPtr doEvfAF(CameraModel& model, void* /*argument*/)
{
    return std::make_unique<DoEvfAFCommand>(model, on);
}

// One coordinate of a focus move. Only the low side of a step down is bounded, at 0: the camera
// itself answers for a position beyond the far edge.
std::int32_t moved(std::int32_t coordinate, std::int32_t step)
{
    const std::int64_t target = std::int64_t{coordinate} + step;
    return static_cast<std::int32_t>(step < 0 ? std::max<std::int64_t>(target, 0) : target);
}

// Moves the focus frame from where the last live-view frame showed it.
template <std::int32_t dx, std::int32_t dy>
CommandPtr moveFocus(CameraModel& model, void* /*argument*/)
{
    EdsPoint point = model.evfPosition;
    point.x = moved(point.x, dx);
    point.y = moved(point.y, dy);
    return std::make_unique<SetPropertyCommand<EdsPoint>>(model, kPropEvfZoomPosition, point);
}

CommandPtr setCapacity(CameraModel& model, void* argument)
{
    return std::make_unique<SetCapacityCommand>(model, *static_cast<const EdsCapacity*>(argument));
}

CommandPtr getProperty(CameraModel& model, void* argument)
{
    return std::make_unique<GetPropertyCommand>(model, number(argument));
}

CommandPtr getPropertyDesc(CameraModel& model, void* argument)
{
    return std::make_unique<GetPropertyDescCommand>(model, number(argument));
}

CommandPtr download(CameraModel& model, void* argument)
{
    auto* const item = static_cast<EdsDirectoryItemRef>(argument);
    try {
        return std::make_unique<DownloadCommand>(model, item);
    } catch (const std::bad_alloc&) {
        if (item != nullptr) {
            EdsRelease(item);
        }
        throw;
    }
}

CommandPtr notifyShutDown(CameraModel& model, void* /*argument*/)
{
    return std::make_unique<NotifyCommand>(model, "shutDown");
}

constexpr const char* kClosing = "closing";

constexpr Action kActions[] = {
    {"opensession", plain<OpenSessionCommand>},
    {"set_AEMode", setNumber<kPropAEMode>},
    {"set_Av", setNumber<kPropAv>},
    {"set_Tv", setNumber<kPropTv>},
    {"set_ISOSpeed", setNumber<kPropISOSpeed>},
    {"set_WB", setNumber<kPropWhiteBalance>},
    {"set_ColorTemp", setNumber<kPropColorTemperature>},
    {"set_MeteringMode", setNumber<kPropMeteringMode>},
    {"set_ExposureCompensation", setNumber<kPropExposureCompensation>},
    {"set_ImageQuality", setNumber<kPropImageQuality>},
    {"pressingHalfway", pressShutter<kShutterHalfway>},
    {"pressingCompletely", pressShutter<kShutterCompletely>},
    {"pressingOff", pressShutter<kShutterOff>},
    {"TakePicture", plain<TakePictureCommand>},
    {"set_Capacity", setCapacity},
    {"get_Property", getProperty},
    {"get_PropertyDesc", getPropertyDesc},
    {"download", download},
    {"shutDown", notifyShutDown},
    {"startEVF", plain<StartEvfCommand>},
    {"endEVF", plain<EndEvfCommand>},
    {"downloadEVF", plain<DownloadEvfCommand>},
    {"focus_Near3", driveLens<3>},
    {"focus_Near2", driveLens<2>},
    {"focus_Near1", driveLens<1>},
    {"focus_Far3", driveLens<kFar | 3>},
    {"focus_Far2", driveLens<kFar | 2>},
    {"focus_Far1", driveLens<kFar | 1>},
    {"focus_Up", moveFocus<0, -kFocusStep>},
    {"focus_Down", moveFocus<0, kFocusStep>},
    {"focus_Left", moveFocus<-kFocusStep, 0>},
    {"focus_Right", moveFocus<kFocusStep, 0>},
    {"zoom_Fit", setZoom<kZoomFit>},
    {"zoom_Zoom", setZoom<kZoomIn>},
    {"set_EvfAFMode", setNumber<kPropEvfAFMode>},
    {"evfAFOn", doEvfAF<kAutofocusOn>},
    {"evfAFOff", doEvfAF<kAutofocusOff>},
};

}  // namespace

CameraController::CameraController(CameraModel& model)
    : m_model(model), m_closeCommand(std::make_unique<CloseSessionCommand>(model))
{}

void CameraController::actionPerformed(const ActionEvent& event)
{
    const std::string& name = event.actionCommand();
    if (name == kClosing) {
        requestClose();
        m_processor.join();
        return;
    }
    const auto* action = std::find_if(std::begin(kActions), std::end(kActions),
                                      [&](const Action& entry) { return name == entry.name; });
    if (action != std::end(kActions)) {
        m_processor.enqueue(action->makeCommand(m_model, event.argument()));
    }
}

void CameraController::requestClose()
{
    if (m_closeCommand) {
        m_processor.setCloseCommand(std::move(m_closeCommand));
    }
    m_processor.stop();
}

}  // namespace canon
