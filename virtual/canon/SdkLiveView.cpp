// Live view: memory streams, images, frames.
#include <cstring>

#include "canon/Call.h"

namespace vc = virtualcanon;
using vc::Bytes;
using vc::Call;
using vc::CallSpec;
using vc::Kind;
using vc::Object;
using vc::Property;
using vc::shown;
namespace property = vc::property;
namespace result = vc::result;
namespace type = vc::type;

namespace {

EdsError createImage(Call& call, EdsStreamRef stream, EdsEvfImageRef* image)
{
    if (!call.isGiven(image, "the image")) {
        return result::kInvalidPointer;
    }
    *image = nullptr;
    const Object* found = call.object(stream, Kind::kStream);
    if (found == nullptr || found->stream->isFile()) {
        return result::kInvalidHandle;
    }
    Object object;
    object.kind = Kind::kImage;
    object.frame = std::make_shared<vc::Frame>();
    object.frame->stream = found->stream;
    *image = call.world().objects.add(std::move(object));
    return result::kOk;
}

Property valueOf(std::uint32_t itsType, Bytes value)
{
    Property entry;
    entry.type = itsType;
    entry.value = std::move(value);
    return entry;
}

// Where the frame lies on the sensor, in the sensor's coordinates.
struct View {
    std::int32_t zoom = 1;
    std::int32_t x = 0;  // of the zoom frame
    std::int32_t y = 0;
};

View viewOf(const vc::Body& body)
{
    View view;
    view.zoom = static_cast<std::int32_t>(body.value(property::kEvfZoom));
    const Property* position = body.find(property::kEvfZoomPosition);
    if (position != nullptr && position->value.size() == 8) {
        std::memcpy(&view.x, position->value.data(), sizeof view.x);
        std::memcpy(&view.y, position->value.data() + 4, sizeof view.y);
    }
    return view;
}

scene::PictureFacts factsOf(const vc::Options& options, const vc::Body& body, const View& view)
{
    scene::PictureFacts facts = body.facts(options.pictureTime());
    facts.width = static_cast<int>(options.frameWidth);
    facts.height = static_cast<int>(options.frameHeight);
    facts.jpegQuality = 70;
    facts.quality = "live view " + std::to_string(view.zoom) + "x";
    if (view.zoom > 1) {
        facts.viewSize = 1.0 / view.zoom;
        facts.viewLeft = static_cast<double>(view.x) / vc::kSensorWidth;
        facts.viewTop = static_cast<double>(view.y) / vc::kSensorHeight;
    }
    return facts;
}

void describe(vc::Frame& frame, const View& view, const scene::Histogram& histogram)
{
    const bool isWhole = view.zoom <= 1;
    Bytes bins(sizeof histogram);
    std::memcpy(bins.data(), histogram.data(), sizeof histogram);
    frame.properties[property::kEvfHistogram] = valueOf(type::kBytes, bins);
    frame.properties[property::kEvfZoom] =
        valueOf(type::kNumber, vc::bytesOf(static_cast<std::uint32_t>(view.zoom)));
    frame.properties[property::kEvfZoomRect] =
        valueOf(type::kRect, vc::bytesOf({view.x, view.y, vc::kSensorWidth / vc::kZoomPart,
                                          vc::kSensorHeight / vc::kZoomPart}));
    frame.properties[property::kEvfImagePosition] =
        valueOf(type::kPoint, vc::bytesOf({isWhole ? 0 : view.x, isWhole ? 0 : view.y}));
    frame.properties[property::kEvfCoordinates] =
        valueOf(type::kSize, vc::bytesOf({vc::kSensorWidth, vc::kSensorHeight}));
}

EdsError downloadFrame(Call& call, EdsCameraRef camera, EdsEvfImageRef image)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(camera, true, error);
    const Object* object = call.object(image, Kind::kImage);
    if (connection == nullptr || object == nullptr) {
        return error != result::kOk ? error : result::kInvalidHandle;
    }
    vc::Body& body = *connection->body;
    if ((body.value(property::kEvfOutput) & vc::kEvfToHost) == 0) {
        return result::kFrameNotReady;
    }
    if (body.framesToWarmUp > 0) {
        --body.framesToWarmUp;
        return result::kFrameNotReady;
    }
    if (call.world().options.busy == 2 && body.exposures > 0) {
        return result::kDeviceBusy;
    }

    const std::shared_ptr<vc::Frame> frame = object->frame;
    const View view = viewOf(body);
    const scene::PictureFacts facts = factsOf(call.world().options, body, view);
    scene::Histogram histogram{};
    call.lock().unlock();
    Bytes picture = scene::makeFrame(facts, histogram);
    call.lock().lock();
    frame->stream->memory = std::move(picture);
    describe(*frame, view, histogram);
    return call.check(*connection, true);
}

}  // namespace

extern "C" {

EdsError EDSAPI EdsCreateMemoryStream(std::uint64_t size, EdsStreamRef* stream)
{
    const CallSpec spec{"EdsCreateMemoryStream", std::to_string(size)};
    return vc::answer(spec, [&](Call& call) -> EdsError {
        if (!call.isGiven(stream, "the stream")) {
            return result::kInvalidPointer;
        }
        Object object;
        object.kind = Kind::kStream;
        object.stream = std::make_shared<vc::Stream>();
        *stream = call.world().objects.add(std::move(object));
        return result::kOk;
    });
}

EdsError EDSAPI EdsCreateEvfImageRef(EdsStreamRef stream, EdsEvfImageRef* image)
{
    const CallSpec spec{"EdsCreateEvfImageRef", shown(stream), stream};
    return vc::answer(spec, [&](Call& call) { return createImage(call, stream, image); });
}

EdsError EDSAPI EdsDownloadEvfImage(EdsCameraRef camera, EdsEvfImageRef image)
{
    CallSpec spec{"EdsDownloadEvfImage", vc::arguments({shown(camera), shown(image)}), camera};
    spec.talksToCamera = true;
    return vc::answer(spec, [&](Call& call) { return downloadFrame(call, camera, image); });
}

}  // extern "C"
