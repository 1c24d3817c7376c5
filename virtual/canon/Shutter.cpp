// Exposures, and the files that come of them.
#include <algorithm>
#include <cmath>

#include "canon/Codes.h"
#include "canon/World.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

Clock::time_point endOfExposure(const World& world, const Body& body)
{
    const double seconds = body.exposureSeconds() * world.options.exposureScale;
    return Clock::now() + std::chrono::milliseconds(world.options.lagMs) +
           std::chrono::microseconds(static_cast<std::int64_t>(std::min(seconds, 3600.0) * 1e6));
}

std::string numbered(int number)
{
    const std::string digits = std::to_string(number % 10000);
    return "IMG_" + std::string(4 - std::min<std::size_t>(4, digits.size()), '0') + digits;
}

std::shared_ptr<PictureFile> newFile(const Exposure& exposure, const char* extension)
{
    const Body& body = *exposure.body;
    auto file = std::make_shared<PictureFile>();
    file->shot = body.shots;
    file->camera = body.number();
    file->isFromBody = exposure.isFromBody;
    file->name = body.pictureName;
    if (file->name.empty()) {
        const std::string name = numbered(body.files) + extension;
        file->name.assign(name.begin(), name.end());
    }
    return file;
}

// Whether the host asked for pictures and has room for this one.
bool isForHost(const Exposure& exposure, std::int64_t size)
{
    const Connection* connection = exposure.connection.get();
    if (connection == nullptr || !connection->isOpen || connection->room < size) {
        return false;
    }
    return (exposure.body->value(property::kSaveTo) & 2U) != 0;
}

void announce(World& world, const Exposure& exposure, const std::shared_ptr<PictureFile>& file)
{
    Event event;
    event.eventClass = EventClass::kObject;
    event.connection = exposure.connection;
    event.file = file;
    event.bytes = file->bytes;
    const bool staysOnCamera = (exposure.body->value(property::kSaveTo) & 1U) != 0;
    if (!file->isForHost || staysOnCamera) {
        event.code = event::kItemCreated;
        raise(world, event);
    }
    if (file->isForHost) {
        event.code = event::kTransferRequested;
        raise(world, event);
    }
}

void store(World& world, const Exposure& exposure, const std::shared_ptr<PictureFile>& file)
{
    file->size = static_cast<std::int64_t>(file->bytes->size());
    file->isForHost = isForHost(exposure, file->size);
    if (file->isForHost) {
        exposure.connection->room -= file->size;
    }
    world.files.push_back(file);
    announce(world, exposure, file);

    const auto kept = static_cast<std::size_t>(world.options.keptFiles);
    if (world.files.size() > kept) {
        world.files[world.files.size() - kept - 1]->bytes = nullptr;
    }
    world.changed.notify_all();
}

Exposure newExposure(const World& world, const std::shared_ptr<Body>& body, bool isFromBody)
{
    Exposure exposure;
    exposure.body = body;
    exposure.connection = world.connectionOf(*body);
    exposure.isFromBody = isFromBody;
    exposure.isBulb = body->isBulb() && !isFromBody;
    exposure.quality = body->value(property::kQuality);
    exposure.facts = body->facts(world.options.pictureTime());
    exposure.facts.width = static_cast<int>(world.options.width);
    exposure.facts.height = static_cast<int>(world.options.height);
    exposure.due = exposure.isBulb ? Clock::time_point::max() : endOfExposure(world, *body);
    return exposure;
}

}  // namespace

std::uint32_t press(World& world, Lock& lock, const std::shared_ptr<Body>& body, bool isFromBody)
{
    if (body->exposures > 0 && (world.options.busy != 0 || body->isBulbOpen)) {
        return result::kDeviceBusy;
    }
    if (world.options.focusFails != 0) {
        return result::kFocusFailed;
    }

    const Exposure exposure = newExposure(world, body, isFromBody);
    ++body->exposures;
    body->isBulbOpen = exposure.isBulb;
    if (world.crew != nullptr) {
        world.crew->exposures.push_back(exposure);
        world.work.notify_all();
    } else {
        developPicture(world, lock, exposure, nullptr);
        body->exposures = std::max(0, body->exposures - 1);
    }
    return result::kOk;
}

void releaseButton(World& world, const Body& body)
{
    if (world.crew == nullptr) {
        return;
    }
    for (Exposure& exposure : world.crew->exposures) {
        if (exposure.body.get() == &body && exposure.isBulb) {
            exposure.due = Clock::now() + std::chrono::milliseconds(world.options.lagMs);
            exposure.body->isBulbOpen = false;
        }
    }
    world.work.notify_all();
}

void developPicture(World& world, Lock& lock, const Exposure& exposure, const Crew* crew)
{
    Body& body = *exposure.body;
    ++body.shots;
    ++body.files;
    const QualityParts parts = qualityParts(exposure.quality);
    const unsigned epoch = world.epoch;
    const Options options = world.options;

    const auto make = [&](const char* extension, scene::PictureFacts facts, auto maker,
                          std::int64_t size) {
        const std::shared_ptr<PictureFile> file = newFile(exposure, extension);
        facts.shot = file->shot;
        facts.quality = parts.text;
        facts.fileName.assign(file->name.begin(), file->name.end());
        facts.fileName.resize(std::min<std::size_t>(facts.fileName.size(), 40));
        lock.unlock();
        file->bytes = std::make_shared<const Bytes>(maker(facts, size));
        lock.lock();
        const bool isWanted = world.epoch == epoch && (crew == nullptr || !crew->isStopping);
        if (isWanted) {
            store(world, exposure, file);
        }
    };

    if (parts.hasRaw) {
        make(".CR2", exposure.facts, scene::makeRaw, options.rawSize);
    }
    if (parts.hasJpeg) {
        scene::PictureFacts facts = exposure.facts;
        facts.width = std::max(16, static_cast<int>(facts.width * parts.jpegScale));
        facts.height = std::max(16, static_cast<int>(facts.height * parts.jpegScale));
        facts.jpegQuality = parts.jpegQuality;
        make(".JPG", facts, scene::makeJpeg, options.jpegSize);
    }
}

}  // namespace virtualcanon
