#include "canon/EvfCommands.h"

#include "EdSdkCodes.h"
#include "canon/CameraModel.h"
#include "platform/Platform.h"

namespace canon {

namespace {

constexpr std::uint32_t kOutputToHost = 0x2;  // bit of kPropEvfOutputDevice: live view is on
constexpr std::uint64_t kFrameStreamSize = 0x200000;
constexpr unsigned kDepthOfFieldPauseMs = 500;

bool isLiveViewOn(const CameraModel& model)
{
    return (model.evfOutputDevice & kOutputToHost) != 0;
}

EdsError setProperty(const CameraModel& model, EdsPropertyID property, std::uint32_t value)
{
    return EdsSetPropertyData(model.camera, property, 0, sizeof value, &value);
}

// Reads one of a frame's own properties; a failure leaves zeros.
template <typename Value>
void readFrameProperty(EdsEvfImageRef image, EdsPropertyID property, Value& value)
{
    EdsGetPropertyData(image, property, 0, sizeof value, &value);
}

}  // namespace

bool StartEvfCommand::execute()
{
    EdsError error = kOk;
    if (model().evfMode == 0) {
        error = setProperty(model(), kPropEvfMode, 1);
    }
    if (error == kOk) {
        error = setProperty(model(), kPropEvfOutputDevice, model().evfOutputDevice | kOutputToHost);
    }
    reportFailure(error);
    return error != kDeviceBusy;
}

bool EndEvfCommand::execute()
{
    if (!isLiveViewOn(model())) {
        return true;
    }
    const EdsError error = end();
    reportFailure(error);
    return error == kOk;
}

EdsError EndEvfCommand::end()
{
    if (model().evfDepthOfFieldPreview != 0) {
        if (const EdsError error = setProperty(model(), kPropEvfDepthOfFieldPreview, 0);
            error != kOk) {
            return error;
        }
        platform::sleepFor(kDepthOfFieldPauseMs);
    }
    return setProperty(model(), kPropEvfOutputDevice, model().evfOutputDevice & ~kOutputToHost);
}

bool DownloadEvfCommand::execute()
{
    if (!isLiveViewOn(model())) {
        return true;
    }
    EdsStreamRef stream = nullptr;
    EdsEvfImageRef image = nullptr;
    EdsError error = EdsCreateMemoryStream(kFrameStreamSize, &stream);
    if (error == kOk) {
        error = EdsCreateEvfImageRef(stream, &image);
    }
    if (error == kOk) {
        error = EdsDownloadEvfImage(model().camera, image);
    }
    if (error == kOk) {
        readFrame(stream, image);
    }

    if (stream != nullptr) {
        EdsRelease(stream);
    }
    if (image != nullptr) {
        EdsRelease(image);
    }
    if (error == kFrameNotReady) {
        return false;
    }
    reportFailure(error);
    return error != kDeviceBusy;
}

void DownloadEvfCommand::readFrame(EdsStreamRef stream, EdsEvfImageRef image)
{
    EvfFrame frame = {};
    frame.stream = stream;
    readFrameProperty(image, kPropEvfZoom, frame.zoom);
    readFrameProperty(image, kPropEvfImagePosition, frame.position);
    readFrameProperty(image, kPropEvfHistogram, frame.histogram);
    readFrameProperty(image, kPropEvfZoomRect, frame.zoomRect);
    readFrameProperty(image, kPropEvfCoordinateSystem, frame.coordinateSystem);

    model().evfZoom = frame.zoom;
    model().evfPosition = frame.zoomRect.point;
    model().evfZoomRect = frame.zoomRect;
    model().notifyObservers(CameraEvent{"EvfDataChanged", &frame});
}

bool DriveLensCommand::execute()
{
    reportFailure(EdsSendCommand(model().camera, kCommandDriveLens, m_drive));
    return true;
}

bool DoEvfAFCommand::execute()
{
    reportFailure(EdsSendCommand(model().camera, kCommandDoEvfAf, m_on));
    return true;
}

}  // namespace canon
