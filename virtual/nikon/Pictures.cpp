#include "nikon/Pictures.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

#include "nikon/Codes.h"
#include "nikon/World.h"
#include "scene/PictureSource.h"

namespace virtualnikon {

namespace {

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

std::shared_ptr<Picture> newPicture(const Exposure& exposure)
{
    auto picture = std::make_shared<Picture>();
    const Body& body = *exposure.camera->body;
    picture->shot = body.shots;
    picture->camera = body.number();
    picture->origin =
        exposure.isFromBody ? virtualcamera::Origin::kBody : virtualcamera::Origin::kHost;
    picture->facts = exposure.facts;
    picture->facts.shot = body.shots;
    return picture;
}

std::shared_ptr<Picture> makePicture(const Options& options, const Exposure& exposure, bool isRaw)
{
    std::shared_ptr<Picture> picture = newPicture(exposure);
    const std::int32_t own =
        isRaw ? static_cast<std::int32_t>(kMaidFileNef) : static_cast<std::int32_t>(kMaidFileJpeg);
    picture->fileType = options.fileType == 0 ? own : static_cast<std::int32_t>(options.fileType);
    picture->name = pictureName(picture->shot, picture->fileType);
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

std::int32_t fileTypeOf(virtualcamera::FileKind kind)
{
    switch (kind) {
        case virtualcamera::FileKind::kTiff:
            return kMaidFileTiff;
        case virtualcamera::FileKind::kRaw:
            return kMaidFileNef;
        default:
            return kMaidFileJpeg;
    }
}

// The lock is kept while a file is read, as it is while a picture is made: these cameras have no
// thread for it, whoever comes by does what is due, and nobody may see the shutter closed and the
// picture not there yet.
void deliverFromFolder(World& world, const Exposure& exposure, std::uint32_t types)
{
    const virtualcamera::FolderShot shot{exposure.camera->body->number(), exposure.quality.hasRaw,
                                         exposure.quality.hasJpeg};
    Options& options = world.options;
    options.folder.deliver(
        shot, world.log, virtualcamera::readFile,
        [&](const virtualcamera::FolderFile& file, const virtualcamera::FileBytes& bytes) {
            const std::shared_ptr<Picture> picture = newPicture(exposure);
            picture->name = file.name;
            picture->fileType = options.fileType > 0 ? static_cast<std::int32_t>(options.fileType)
                                                     : fileTypeOf(file.kind);
            picture->bytes = bytes;
            store(world, *exposure.camera, types, picture);
        });
}

void developPicture(World& world, const Exposure& exposure)
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
    if (world.options.folder.isUsed()) {
        deliverFromFolder(world, exposure, types);
        return;
    }
    if (exposure.quality.hasRaw) {
        store(world, *exposure.camera, types, makePicture(world.options, exposure, true));
    }
    if (exposure.quality.hasJpeg) {
        store(world, *exposure.camera, types, makePicture(world.options, exposure, false));
    }
}

// Ends the camera's exposure if it is kept open and `concerns` holds for it.
template <typename Condition>
bool endIf(World& world, const Camera& camera, Condition concerns)
{
    bool wasEnded = false;
    for (const auto& exposure : world.exposures) {
        if (exposure->camera.get() == &camera && concerns(*exposure)) {
            wasEnded |= exposure->end(world.options);
        }
    }
    world.changed.notify_all();
    return wasEnded;
}

// The bytes of pictures that left their camera are kept for comparing, but not for ever.
void forgetOldBytes(const std::vector<std::shared_ptr<Picture>>& pictures, const Options& options)
{
    virtualcamera::Keeping keeping(options);
    for (auto picture = pictures.rbegin(); picture != pictures.rend(); ++picture) {
        if (!(*picture)->isOnCamera && (*picture)->bytes != nullptr &&
            !keeping.keepsNext((*picture)->size)) {
            (*picture)->bytes = nullptr;
        }
    }
}

ObjectRef sourceOf(const ObjectTable& objects, const Camera& camera)
{
    for (const ObjectRef& object : objects.all()) {
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
    exposure->facts.width = world.options.pictureWidth();
    exposure->facts.height = world.options.pictureHeight();
    exposure->quality = body.quality();
    exposure->begin(world.options, body.exposureSeconds(), body.isBulb());
    body.isExposing = true;
    world.exposures.push_back(exposure);
    world.changed.notify_all();
    return exposure;
}

bool endExposure(World& world, const Camera& camera)
{
    return endIf(world, camera, [](const Exposure&) { return true; });
}

void leaveExposure(World& world, const Camera& camera)
{
    endIf(world, camera, [](const Exposure& exposure) { return !exposure.isFromBody; });
}

void develop(World& world)
{
    for (const auto& exposure : std::list<std::shared_ptr<Exposure>>(world.exposures)) {
        if (exposure->due > Clock::now()) {
            continue;
        }
        world.exposures.remove(exposure);
        developPicture(world, *exposure);
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
    forgetOldBytes(world.pictures, world.options);
    raiseChild(world, kMaidEventAddChild, sourceOf(world.objects, camera), item->id, item);
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
        raiseChild(world, kMaidEventRemoveChild, sourceOf(world.objects, camera), item->id);
    }
    world.changed.notify_all();
}

}  // namespace virtualnikon
