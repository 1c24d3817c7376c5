// The functions of VirtualNikon.h.
#include "VirtualNikon.h"

#include <algorithm>
#include <sstream>

#include "common/Maker.h"
#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/World.h"

namespace vn = virtualnikon;
using virtualcamera::copyOut;
using virtualcamera::textFrom;
using virtualcamera::waitFor;
using vn::World;

namespace {

// The world, locked as long as the answer lives.
virtualcamera::Locked<World> locked()
{
    return {vn::world(), vn::world().mutex};
}

// The same, with the pictures made that are due.
virtualcamera::Locked<World> lockedWithDuePictures()
{
    auto world = locked();
    vn::develop(*world);
    return world;
}

// Does `work` with a camera; 0 with an error when there is no such camera.
template <typename Work>
int withCamera(int camera, Work work)
{
    const auto world = locked();
    const std::shared_ptr<vn::Camera> found = world->camera(camera);
    if (found == nullptr) {
        return world->refuseCamera(camera);
    }
    return work(*world, found);
}

int change(World& world, const vn::Camera& camera, const std::optional<vn::Changes>& changes)
{
    if (!changes) {
        return world.refuse("no such capability, value or list");
    }
    vn::raiseChanges(world, camera, *changes);
    return 1;
}

int send(std::uint32_t level, std::uint32_t object, vn::Event event)
{
    const auto world = locked();
    const vn::ObjectRef found = world->objects.find(level, object);
    if (found == nullptr) {
        return world->refuse("no such object is open");
    }
    event.object = found;
    event.isForced = true;
    vn::noteInventedChild(*world, event);
    vn::raise(*world, event);
    return 1;
}

std::vector<std::string> linesOf(const char* text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

std::string describe(const vn::Capability& capability)
{
    std::string text;
    for (const std::string& entry : capability.texts) {
        text += entry + "\n";
    }
    for (const std::uint32_t number : capability.numbers) {
        text += std::to_string(number) + "\n";
    }
    return text;
}

std::shared_ptr<vn::Picture> pictureFrom(int fileType, std::uint32_t rowBytes, const void* bytes,
                                         std::int64_t size)
{
    auto picture = std::make_shared<vn::Picture>();
    picture->origin = virtualcamera::Origin::kTest;
    picture->fileType = fileType < 0 ? vn::kRows : fileType;
    if (fileType < 0) {
        picture->rowBytes = std::max(1U, rowBytes);
        size -= size % picture->rowBytes;
        picture->rows = static_cast<std::uint32_t>(size / picture->rowBytes);
    }
    const auto* start = static_cast<const std::uint8_t*>(bytes);
    picture->bytes = std::make_shared<const vn::Bytes>(start, start + size);
    return picture;
}

}  // namespace

extern "C" {

int VirtualNikonSetValue(int camera, uint32_t capability, uint32_t value)
{
    return withCamera(camera, [&](World& world, const auto& found) {
        return change(world, *found, found->body->set(capability, value));
    });
}

int64_t VirtualNikonValue(int camera, uint32_t capability)
{
    std::int64_t value = -1;
    withCamera(camera, [&](World&, const auto& found) {
        if (const vn::Capability* entry = found->body->find(capability)) {
            value = entry->elementType == 0 ? entry->number : entry->current;
        }
        return 1;
    });
    return value;
}

int VirtualNikonValueText(int camera, uint32_t capability, char* buffer, int capacity)
{
    const auto world = lockedWithDuePictures();
    const auto found = world->camera(camera);
    const vn::Capability* entry = found == nullptr ? nullptr : found->body->find(capability);
    return copyOut(entry == nullptr ? std::string() : entry->currentText(), buffer, capacity);
}

int VirtualNikonSetTexts(int camera, uint32_t capability, const char* lines)
{
    return withCamera(camera, [&](World& world, const auto& found) {
        std::optional<std::vector<std::string>> texts;
        if (lines != nullptr) {
            texts = linesOf(lines);
        }
        return change(world, *found, found->body->setTexts(capability, texts));
    });
}

int VirtualNikonTexts(int camera, uint32_t capability, char* buffer, int capacity)
{
    const auto world = lockedWithDuePictures();
    const auto found = world->camera(camera);
    const vn::Capability* entry = found == nullptr ? nullptr : found->body->find(capability);
    return copyOut(entry == nullptr ? std::string() : describe(*entry), buffer, capacity);
}

int VirtualNikonOperations(int camera, uint32_t capability)
{
    int operations = -1;
    withCamera(camera, [&](World&, const auto& found) {
        if (const vn::Capability* entry = found->body->find(capability)) {
            operations = static_cast<int>(entry->operations);
        }
        return 1;
    });
    return operations;
}

int VirtualNikonCorrupt(int level, uint32_t capability, const char* what, int64_t value)
{
    const bool isOfAll = capability == vn::kAllCapabilities;
    return VirtualCameraConfigure(("corrupt." + std::to_string(level) + "." +
                                   (isOfAll ? "all" : virtualcamera::hexadecimal(capability)) +
                                   "." + textFrom(what) + " = " + std::to_string(value))
                                      .c_str()) == 0
               ? 1
               : 0;
}

int VirtualNikonSetDescription(int level, uint32_t capability, const char* text)
{
    const auto world = locked();
    if (level < 1 || level > 4) {
        return world->refuse("no such level");
    }
    const auto number = static_cast<std::uint32_t>(level);
    vn::Corruption& corruption = world->corruptions[{number, capability}];
    corruption.description = text == nullptr ? std::nullopt : std::optional<std::string>(text);
    vn::raiseDescriptorChange(*world, number);
    return 1;
}

void VirtualNikonClearCorruption(void)
{
    const auto world = locked();
    world->corruptions.clear();
    world->options.data = vn::TransferCorruption{};
    for (std::uint32_t level = kMaidLevelModule; level <= kMaidLevelData; ++level) {
        vn::raiseDescriptorChange(*world, level);
    }
}

int VirtualNikonPending(void)
{
    return static_cast<int>(locked()->pending.size());
}

int VirtualNikonReleaseCompletions(void)
{
    const auto world = locked();
    int count = 0;
    for (const vn::PendingRef& pending : world->pending) {
        count += pending->how.isNever ? 1 : 0;
        pending->how.isNever = false;
    }
    world->changed.notify_all();
    return count;
}

int VirtualNikonSendEvent(int level, uint32_t object, uint32_t event, uint64_t parameter)
{
    vn::Event raised;
    raised.code = event;
    raised.parameter = parameter;
    return send(static_cast<std::uint32_t>(level), object, raised);
}

int VirtualNikonSendStrayEvent(int level, uint32_t object, uint32_t event, uint64_t parameter,
                               void* reference)
{
    vn::Event raised;
    raised.code = event;
    raised.parameter = parameter;
    raised.hasReference = true;
    raised.reference = reference;
    return send(static_cast<std::uint32_t>(level), object, raised);
}

int VirtualNikonOpenCount(int level)
{
    const auto world = locked();
    const auto& all = world->objects.all();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const auto& object) {
        return level == 0 || object->level == static_cast<std::uint32_t>(level);
    }));
}

int VirtualNikonOpenObjects(char* buffer, int capacity)
{
    const auto world = lockedWithDuePictures();
    std::string text;
    for (const vn::ObjectRef& object : world->objects.all()) {
        text += object->name();
        for (const auto& procedure : object->procedures) {
            text += " " + std::to_string(procedure.first);
        }
        text += "\n";
    }
    return copyOut(text, buffer, capacity);
}

int VirtualNikonForgetObjects(void)
{
    auto world = locked();
    const auto count = static_cast<int>(world->objects.all().size());
    world->pending.clear();
    world->events.clear();
    for (const auto& camera : world->cameras) {
        if (camera != nullptr) {
            vn::leaveExposure(*world, *camera);
        }
    }
    vn::stopThread(*world, world.lock());
    world->objects.clear();
    world->changed.notify_all();
    return count;
}

int VirtualNikonAddItem(int camera, uint32_t dataTypes, int fileType, uint32_t rowBytes,
                        const void* bytes, int64_t size)
{
    int number = -1;
    withCamera(camera, [&](World& world, const auto& found) {
        if (size < 0 || size > UINT32_MAX || (bytes == nullptr && size > 0)) {
            return world.refuse("0 to 4 GiB of content");
        }
        const auto picture = pictureFrom(fileType, rowBytes, bytes, size);
        picture->camera = camera;
        picture->name = "ITEM_" + std::to_string(world.pictures.size());
        number = static_cast<int>(world.pictures.size());
        vn::store(world, *found, dataTypes, picture);
        return 1;
    });
    return number;
}

int VirtualNikonRemoveItem(int picture)
{
    const auto world = locked();
    const auto found = virtualcamera::atNumber(world->pictures, picture);
    for (const auto& camera : world->cameras) {
        if (camera == nullptr || found == nullptr) {
            continue;
        }
        const auto item =
            std::find_if(camera->items.begin(), camera->items.end(),
                         [&](const auto& listed) { return listed->picture == found; });
        if (item != camera->items.end()) {
            const std::shared_ptr<vn::Item> gone = *item;
            gone->isGone = true;
            vn::removeItem(*world, *camera, gone, true);
            return 1;
        }
    }
    return world->refuse("no camera lists this picture");
}

int VirtualNikonItemCount(int camera)
{
    const auto world = lockedWithDuePictures();
    const auto found = world->camera(camera);
    return found == nullptr ? -1 : static_cast<int>(found->items.size());
}

int VirtualNikonWaitForDelivered(int count, int timeoutMs)
{
    const auto& pictures = vn::world().pictures;
    return waitFor(virtualcamera::maker(), timeoutMs, [&] {
        return std::count_if(pictures.begin(), pictures.end(),
                             [](const auto& picture) { return picture->delivered > 0; }) >= count;
    });
}

}  // extern "C"
