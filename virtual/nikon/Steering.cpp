// The functions of VirtualNikon.h.
#include "VirtualNikon.h"

#include <algorithm>
#include <sstream>

#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/World.h"

namespace vn = virtualnikon;
using steering::copyOut;
using steering::textFrom;
using steering::waitFor;
using vn::World;

namespace {

// The world, locked as long as the answer lives.
steering::Locked<World> locked()
{
    return steering::Locked<World>(vn::world());
}

// The same, with the pictures made that are due.
steering::Locked<World> caughtUp()
{
    auto world = locked();
    world->catchUp();
    return world;
}

// Does `work` with a camera; 0 with an error when there is no such camera.
template <typename Work>
int withCamera(int camera, Work work)
{
    const auto world = locked();
    const std::shared_ptr<vn::Camera> found = world->camera(camera);
    if (found == nullptr) {
        return world->refuse("no such camera: " + std::to_string(camera));
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
    vn::noteUntrueChild(*world, event);
    vn::raise(*world, event);
    return 1;
}

std::string describe(const vn::Picture& picture)
{
    constexpr const char* kOrigins[] = {"host", "body", "test"};
    return "shot=" + std::to_string(picture.shot) + " camera=" + std::to_string(picture.camera) +
           " origin=" + kOrigins[picture.origin] + " name=" + picture.name +
           " type=" + std::to_string(picture.fileType) + " size=" + std::to_string(picture.size) +
           " listed=" + (picture.isOnCamera ? "1" : "0") +
           " announced=" + std::to_string(picture.announced) +
           " opened=" + std::to_string(picture.opened) +
           " started=" + std::to_string(picture.started) +
           " delivered=" + std::to_string(picture.delivered) + "\n";
}

// The code that an event is counted under; a negative one stands for all.
std::optional<std::uint32_t> countedCode(int event)
{
    return event < 0 ? std::nullopt : std::optional(static_cast<std::uint32_t>(event));
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
    picture->origin = 2;
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

void VirtualNikonReset(void)
{
    vn::reset(*locked());
}

int VirtualNikonConfigure(const char* text)
{
    return locked()->configure(textFrom(text));
}

int VirtualNikonSettings(char* buffer, int capacity)
{
    return copyOut(caughtUp()->describeSettings(), buffer, capacity);
}

int VirtualNikonLastError(char* buffer, int capacity)
{
    return copyOut(caughtUp()->lastError, buffer, capacity);
}

int VirtualNikonAdd(const char* name, uint32_t id)
{
    const auto world = locked();
    const auto camera = vn::addCamera(*world, textFrom(name), id);
    vn::raiseChild(*world, kMaidEventAddChild, world->objects.find(kMaidLevelModule, 0), id);
    return camera->body->number();
}

int VirtualNikonRemove(int camera)
{
    return withCamera(camera, [&](World& world, const auto& found) {
        vn::unplug(world, *found);
        world.cameras[static_cast<std::size_t>(camera)] = nullptr;
        return 1;
    });
}

int VirtualNikonCount(void)
{
    return static_cast<int>(locked()->cameras.size());
}

int VirtualNikonUnplug(int camera)
{
    return withCamera(camera, [](World& world, const auto& found) {
        vn::unplug(world, *found);
        return 1;
    });
}

int VirtualNikonPlug(int camera)
{
    return withCamera(camera, [](World& world, const auto& found) {
        vn::plug(world, *found);
        return 1;
    });
}

int VirtualNikonSourceOpen(int camera)
{
    return withCamera(camera, [](World& world, const auto& found) {
        const auto& all = world.objects.all();
        return std::any_of(all.begin(), all.end(),
                           [&](const vn::ObjectRef& object) {
                               return object->level == kMaidLevelSource && object->camera == found;
                           })
                   ? 1
                   : 0;
    });
}

int VirtualNikonPressShutter(int camera)
{
    return withCamera(camera, [](World& world, const auto& found) {
        vn::develop(world);
        if (!found->body->isPlugged || vn::press(world, found, true) == nullptr) {
            return world.refuse("the camera is busy or unplugged");
        }
        return 1;
    });
}

int VirtualNikonTurnDial(int camera, uint32_t mode)
{
    return withCamera(camera, [&](World& world, const auto& found) {
        return change(world, *found, found->body->turnDial(mode));
    });
}

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
    const auto world = caughtUp();
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
    const auto world = caughtUp();
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
    return VirtualNikonConfigure(("corrupt." + std::to_string(level) + "." +
                                  (isOfAll ? "all" : steering::hexadecimal(capability)) + "." +
                                  textFrom(what) + " = " + std::to_string(value))
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
    vn::Untruth& untruth = world->untruths[{number, capability}];
    untruth.description = text == nullptr ? std::nullopt : std::optional<std::string>(text);
    vn::raiseDescriptorChange(*world, number);
    return 1;
}

void VirtualNikonClearCorruption(void)
{
    const auto world = locked();
    world->untruths.clear();
    world->options.data = vn::TransferUntruths{};
    for (std::uint32_t level = kMaidLevelModule; level <= kMaidLevelData; ++level) {
        vn::raiseDescriptorChange(*world, level);
    }
}

int VirtualNikonFault(const char* rule)
{
    const auto world = locked();
    return world->answer(world->rules.add(textFrom(rule)));
}

int VirtualNikonFailNext(const char* command, int32_t code, int calls)
{
    return VirtualNikonFault(
        (textFrom(command) + " code=" + std::to_string(code) + " calls=" + std::to_string(calls))
            .c_str());
}

int VirtualNikonEventRule(const char* rule)
{
    const auto world = locked();
    return world->answer(world->eventRules.add(textFrom(rule)));
}

void VirtualNikonClearFaults(void)
{
    const auto world = locked();
    world->rules.clear();
    world->eventRules.clear();
}

int VirtualNikonReleaseHangs(void)
{
    return locked()->releaseHangs();
}

int VirtualNikonWaitForHang(const char* command, int timeoutMs)
{
    const std::string name = textFrom(command);
    return waitFor(vn::world(), timeoutMs, [&] { return vn::world().isHanging(name); });
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

int VirtualNikonEventCount(int event)
{
    return locked()->eventCount(countedCode(event));
}

int VirtualNikonWaitForEvents(int event, int count, int timeoutMs)
{
    return waitFor(vn::world(), timeoutMs,
                   [&] { return vn::world().eventCount(countedCode(event)) >= count; });
}

int VirtualNikonCallCount(const char* command)
{
    return locked()->log.calls(textFrom(command));
}

int VirtualNikonWaitForCalls(const char* command, int count, int timeoutMs)
{
    const std::string name = textFrom(command);
    return waitFor(vn::world(), timeoutMs, [&] { return vn::world().log.calls(name) >= count; });
}

int VirtualNikonWaitUntilIdle(int timeoutMs)
{
    return waitFor(vn::world(), timeoutMs, [] { return vn::world().isIdle(); });
}

int VirtualNikonLog(char* buffer, int capacity)
{
    return copyOut(caughtUp()->log.text(), buffer, capacity);
}

int64_t VirtualNikonClock(void)
{
    return locked()->log.microseconds();
}

void VirtualNikonClearLog(void)
{
    locked()->log.clearLines();
}

int VirtualNikonMisuseCount(void)
{
    return locked()->log.misuses();
}

int VirtualNikonMisuse(char* buffer, int capacity)
{
    return copyOut(caughtUp()->log.misuseText(), buffer, capacity);
}

void VirtualNikonClearMisuse(void)
{
    locked()->log.clearMisuses();
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
    const auto world = caughtUp();
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
    const auto found = steering::atNumber(world->pictures, picture);
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
    const auto world = caughtUp();
    const auto found = world->camera(camera);
    return found == nullptr ? -1 : static_cast<int>(found->items.size());
}

int VirtualNikonPictureCount(void)
{
    const auto world = caughtUp();
    return static_cast<int>(world->pictures.size());
}

int VirtualNikonWaitForPictures(int count, int timeoutMs)
{
    return waitFor(vn::world(), timeoutMs,
                   [&] { return static_cast<int>(vn::world().pictures.size()) >= count; });
}

int VirtualNikonWaitForDelivered(int count, int timeoutMs)
{
    const auto& pictures = vn::world().pictures;
    return waitFor(vn::world(), timeoutMs, [&] {
        return std::count_if(pictures.begin(), pictures.end(),
                             [](const auto& picture) { return picture->delivered > 0; }) >= count;
    });
}

int VirtualNikonPictureList(char* buffer, int capacity)
{
    const auto world = caughtUp();
    std::string text;
    for (const auto& picture : world->pictures) {
        text += describe(*picture);
    }
    return copyOut(text, buffer, capacity);
}

int64_t VirtualNikonPictureValue(int picture, const char* field)
{
    const auto world = caughtUp();
    const auto found = steering::atNumber(world->pictures, picture);
    if (found == nullptr) {
        world->lastError = "no such picture";
        return -1;
    }
    const std::map<std::string, std::int64_t> values{
        {"shot", found->shot},           {"camera", found->camera},
        {"origin", found->origin},       {"type", found->fileType},
        {"size", found->size},           {"rows", found->rows},
        {"row_bytes", found->rowBytes},  {"listed", found->isOnCamera ? 1 : 0},
        {"announced", found->announced}, {"opened", found->opened},
        {"started", found->started},     {"delivered", found->delivered},
    };
    const auto value = values.find(textFrom(field));
    return value == values.end() ? -1 : value->second;
}

int VirtualNikonPictureName(int picture, char* buffer, int capacity)
{
    const auto world = caughtUp();
    const auto found = steering::atNumber(world->pictures, picture);
    return copyOut(found == nullptr ? std::string() : found->name, buffer, capacity);
}

int64_t VirtualNikonPictureBytes(int picture, void* buffer, int64_t capacity)
{
    const auto world = caughtUp();
    const auto found = steering::atNumber(world->pictures, picture);
    if (found == nullptr || found->bytes == nullptr) {
        world->lastError = "no such picture, or its bytes are not kept";
        return -1;
    }
    return copyOut(found->bytes->data(), found->bytes->size(), buffer, capacity);
}

}  // extern "C"
