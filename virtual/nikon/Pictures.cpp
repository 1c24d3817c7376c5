// The shutter, the pictures it makes, and the items that stand for them.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

#include "nikon/Codes.h"
#include "nikon/World.h"
#include "scene/PictureSource.h"

namespace virtualnikon {

namespace {

Clock::time_point endOfExposure(const World& world, const Body& body)
{
    const double seconds = body.exposureSeconds() * world.options.exposureScale;
    return Clock::now() + std::chrono::milliseconds(world.options.lagMs) +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

const char* extension(std::int32_t fileType)
{
    switch (fileType) {
        case kRows:
            return "RAW";
        case kMaidFileJpeg:
            return "JPG";
        case kMaidFileTiff:
            return "TIF";
        case kMaidFileNef:
            return "NEF";
        case kMaidFileNdf:
            return "NDF";
        default:
            return "DAT";
    }
}

std::string pictureName(int number, std::int32_t fileType)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "DSC_%04d.%s", number, extension(fileType));
    return text.data();
}

// Rows as long as asked for: the sensor's data over and over.
void makeRows(Picture& picture, std::int64_t size)
{
    Bytes bytes = scene::makeSensorRows(picture.facts);
    picture.rowBytes = static_cast<std::uint32_t>(picture.facts.width) * 2;
    if (size > 0) {
        picture.rowBytes = std::min(picture.rowBytes, static_cast<std::uint32_t>(size));
        const auto rows = static_cast<std::size_t>(size) / picture.rowBytes;
        bytes = repeated(bytes, rows * picture.rowBytes);
    }
    picture.rows = static_cast<std::uint32_t>(bytes.size() / picture.rowBytes);
    picture.bytes = std::make_shared<const Bytes>(std::move(bytes));
}

std::shared_ptr<Picture> makePicture(World& world, const Exposure& exposure, bool isRaw)
{
    auto picture = std::make_shared<Picture>();
    const Options& options = world.options;
    Body& body = *exposure.camera->body;
    const std::int32_t own =
        isRaw ? static_cast<std::int32_t>(kMaidFileNef) : static_cast<std::int32_t>(kMaidFileJpeg);
    picture->fileType = options.fileType == 0 ? own : static_cast<std::int32_t>(options.fileType);
    picture->shot = body.shots;
    picture->camera = body.number();
    picture->origin = exposure.isFromBody ? 1 : 0;
    picture->name = pictureName(body.shots, picture->fileType);
    picture->facts = exposure.facts;
    picture->facts.shot = body.shots;
    picture->facts.fileName = picture->name;
    picture->facts.jpegQuality = exposure.quality.jpegQuality;
    if (picture->fileType == kRows) {
        makeRows(*picture, options.rawSize);
        return picture;
    }
    const bool isJpeg = picture->fileType == kMaidFileJpeg;
    picture->bytes = std::make_shared<const Bytes>(
        isJpeg ? scene::makeJpeg(picture->facts, options.jpegSize)
               : scene::makePlainRaw(picture->facts, options.rawSize));
    return picture;
}

void endExposure(World& world, const Exposure& exposure)
{
    Body& body = *exposure.camera->body;
    body.isExposing = false;
    if (!body.isPlugged) {
        return;
    }
    ++body.shots;
    std::uint32_t types = kMaidItemImage;
    if (world.options.thumbnails != 0) {
        types |= kMaidItemThumbnail;
    }
    if (exposure.quality.hasRaw) {
        store(world, *exposure.camera, types, makePicture(world, exposure, true));
    }
    if (exposure.quality.hasJpeg) {
        store(world, *exposure.camera, types, makePicture(world, exposure, false));
    }
}

// The bytes of pictures that left their camera are kept for comparing, but not for ever.
void forgetOldBytes(World& world)
{
    std::int64_t kept = 0;
    for (auto picture = world.pictures.rbegin(); picture != world.pictures.rend(); ++picture) {
        if (!(*picture)->isOnCamera && (*picture)->bytes != nullptr &&
            ++kept > world.options.keptFiles) {
            (*picture)->bytes = nullptr;
        }
    }
}

ObjectRef sourceOf(const World& world, const Camera& camera)
{
    for (const ObjectRef& object : world.objects.all()) {
        if (object->level == kMaidLevelSource && object->camera.get() == &camera) {
            return object;
        }
    }
    return nullptr;
}

}  // namespace

std::shared_ptr<Exposure> press(World& world, const std::shared_ptr<Camera>& camera,
                                bool isFromBody)
{
    Body& body = *camera->body;
    if (body.isExposing) {
        return nullptr;
    }
    auto exposure = std::make_shared<Exposure>();
    exposure->camera = camera;
    exposure->isFromBody = isFromBody;
    exposure->facts = body.facts(world.options.pictureTime());
    exposure->facts.width = static_cast<int>(world.options.width);
    exposure->facts.height = static_cast<int>(world.options.height);
    exposure->quality = body.quality();
    exposure->due = endOfExposure(world, body);
    body.isExposing = true;
    world.exposures.push_back(exposure);
    world.changed.notify_all();
    return exposure;
}

void develop(World& world)
{
    for (const auto& exposure : std::list<std::shared_ptr<Exposure>>(world.exposures)) {
        if (exposure->due > Clock::now()) {
            continue;
        }
        world.exposures.remove(exposure);
        endExposure(world, *exposure);
        for (const PendingRef& pending : std::list<PendingRef>(world.pending)) {
            if (pending->exposure == exposure) {
                finishPending(world, pending, kMaidOk);
            }
        }
        world.changed.notify_all();
    }
}

std::shared_ptr<Item> store(World& world, Camera& camera, std::uint32_t dataTypes,
                            const std::shared_ptr<Picture>& picture)
{
    picture->size = static_cast<std::int64_t>(picture->bytes->size());
    picture->isOnCamera = true;
    auto item = std::make_shared<Item>();
    item->id = camera.body->nextItem++;
    item->dataTypes = dataTypes;
    item->picture = picture;
    camera.items.insert(world.options.newestFirst != 0 ? camera.items.begin() : camera.items.end(),
                        item);
    world.pictures.push_back(picture);
    forgetOldBytes(world);
    raiseChild(world, kMaidEventAddChild, sourceOf(world, camera), item->id, item);
    world.changed.notify_all();
    return item;
}

void removeItem(World& world, Camera& camera, const std::shared_ptr<Item>& item, bool isTold)
{
    item->isListed = false;
    item->picture->isOnCamera = false;
    const auto found = std::find(camera.items.begin(), camera.items.end(), item);
    if (found != camera.items.end()) {
        camera.items.erase(found);
    }
    if (isTold) {
        raiseChild(world, kMaidEventRemoveChild, sourceOf(world, camera), item->id);
    }
    world.changed.notify_all();
}

}  // namespace virtualnikon
