// The functions of VirtualNikon.h.
#include "VirtualNikon.h"

#include <algorithm>
#include <sstream>

#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/World.h"

namespace vn = virtualnikon;
using vn::Clock;
using vn::Lock;
using vn::World;

namespace {

std::string textFrom(const char* text)
{
    return text == nullptr ? "" : text;
}

int refuse(World& world, const std::string& reason)
{
    world.lastError = reason;
    return 0;
}

// Does `work` with a camera; 0 with an error when there is no such camera.
template <typename Work>
int withCamera(int camera, Work work)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    const std::shared_ptr<vn::Camera> found = world.camera(camera);
    if (found == nullptr) {
        return refuse(world, "no such camera: " + std::to_string(camera));
    }
    return work(world, found);
}

// Waits, and has the pictures made that are due meanwhile.
template <typename Condition>
int waitFor(int timeoutMs, Condition condition)
{
    World& world = vn::world();
    Lock lock(world.mutex);
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
    while (true) {
        vn::develop(world);
        if (condition(world)) {
            return 1;
        }
        if (Clock::now() >= deadline) {
            return 0;
        }
        world.changed.wait_until(lock, std::min(deadline, world.nextDue()));
    }
}

// Asks for text; everything it needs is read under the lock.
template <typename Make>
int textOut(char* buffer, int capacity, Make make)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    vn::develop(world);
    return steering::copyOut(make(world), buffer, capacity);
}

int change(World& world, const vn::Camera& camera, const std::optional<vn::Changes>& changes)
{
    if (!changes) {
        return refuse(world, "no such capability, value or list");
    }
    vn::raiseChanges(world, camera, *changes);
    return 1;
}

int send(std::uint32_t level, std::uint32_t object, vn::Event event)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    const vn::ObjectRef found = world.objects.find(level, object);
    if (found == nullptr) {
        return refuse(world, "no such object is open");
    }
    event.object = found;
    event.isForced = true;
    vn::noteUntrueChild(world, event);
    vn::raise(world, event);
    return 1;
}

std::shared_ptr<vn::Picture> pictureAt(const World& world, int picture)
{
    const auto index = static_cast<std::size_t>(picture);
    return picture < 0 || index >= world.pictures.size() ? nullptr : world.pictures[index];
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

int deliveries(const World& world, int event)
{
    int count = 0;
    for (const auto& [code, times] : world.deliveries) {
        count += event < 0 || static_cast<std::uint32_t>(event) == code ? times : 0;
    }
    return count;
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
    World& world = vn::world();
    const Lock lock(world.mutex);
    vn::reset(world);
}

int VirtualNikonConfigure(const char* text)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    return world.configure(textFrom(text));
}

int VirtualNikonSettings(char* buffer, int capacity)
{
    return textOut(buffer, capacity, [](const World& world) { return world.describeSettings(); });
}

int VirtualNikonLastError(char* buffer, int capacity)
{
    return textOut(buffer, capacity, [](const World& world) { return world.lastError; });
}

int VirtualNikonAdd(const char* name, uint32_t id)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    const auto camera = vn::addCamera(world, textFrom(name), id);
    vn::raiseChild(world, kMaidEventAddChild, world.objects.find(kMaidLevelModule, 0), id);
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
    World& world = vn::world();
    const Lock lock(world.mutex);
    return static_cast<int>(world.cameras.size());
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
            return refuse(world, "the camera is busy or unplugged");
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
    return textOut(buffer, capacity, [&](const World& world) {
        const auto found = world.camera(camera);
        const vn::Capability* entry = found == nullptr ? nullptr : found->body->find(capability);
        return entry == nullptr ? std::string() : entry->currentText();
    });
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
    return textOut(buffer, capacity, [&](const World& world) {
        const auto found = world.camera(camera);
        const vn::Capability* entry = found == nullptr ? nullptr : found->body->find(capability);
        return entry == nullptr ? std::string() : describe(*entry);
    });
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
    World& world = vn::world();
    const Lock lock(world.mutex);
    if (level < 1 || level > 4) {
        return refuse(world, "no such level");
    }
    const auto number = static_cast<std::uint32_t>(level);
    vn::Untruth& untruth = world.untruths[{number, capability}];
    untruth.description = text == nullptr ? std::nullopt : std::optional<std::string>(text);
    vn::raiseDescriptorChange(world, number);
    return 1;
}

void VirtualNikonClearCorruption(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    world.untruths.clear();
    world.options.data = vn::TransferUntruths{};
    for (std::uint32_t level = kMaidLevelModule; level <= kMaidLevelData; ++level) {
        vn::raiseDescriptorChange(world, level);
    }
}

int VirtualNikonFault(const char* rule)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    const std::string problem = world.rules.add(textFrom(rule));
    return problem.empty() ? 1 : refuse(world, problem);
}

int VirtualNikonFailNext(const char* command, int32_t code, int calls)
{
    return VirtualNikonFault(
        (textFrom(command) + " code=" + std::to_string(code) + " calls=" + std::to_string(calls))
            .c_str());
}

int VirtualNikonEventRule(const char* rule)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    const std::string problem = world.eventRules.add(textFrom(rule));
    return problem.empty() ? 1 : refuse(world, problem);
}

void VirtualNikonClearFaults(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    world.rules.clear();
    world.eventRules.clear();
}

int VirtualNikonReleaseHangs(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    const auto count = static_cast<int>(world.hanging.size());
    ++world.hangEpoch;
    world.changed.notify_all();
    return count;
}

int VirtualNikonWaitForHang(const char* command, int timeoutMs)
{
    const std::string name = textFrom(command);
    return waitFor(timeoutMs, [&](const World& world) {
        return std::any_of(world.hanging.begin(), world.hanging.end(),
                           [&](const auto& hanging) { return name == "*" || name == hanging; });
    });
}

int VirtualNikonPending(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    return static_cast<int>(world.pending.size());
}

int VirtualNikonReleaseCompletions(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    int count = 0;
    for (const vn::PendingRef& pending : world.pending) {
        count += pending->how.isNever ? 1 : 0;
        pending->how.isNever = false;
    }
    world.changed.notify_all();
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
    World& world = vn::world();
    const Lock lock(world.mutex);
    return deliveries(world, event);
}

int VirtualNikonWaitForEvents(int event, int count, int timeoutMs)
{
    return waitFor(timeoutMs,
                   [&](const World& world) { return deliveries(world, event) >= count; });
}

int VirtualNikonCallCount(const char* command)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    return world.log.calls(textFrom(command));
}

int VirtualNikonWaitForCalls(const char* command, int count, int timeoutMs)
{
    const std::string name = textFrom(command);
    return waitFor(timeoutMs, [&](const World& world) { return world.log.calls(name) >= count; });
}

int VirtualNikonWaitUntilIdle(int timeoutMs)
{
    return waitFor(timeoutMs, [](const World& world) { return world.isIdle(); });
}

int VirtualNikonLog(char* buffer, int capacity)
{
    return textOut(buffer, capacity, [](const World& world) { return world.log.text(); });
}

void VirtualNikonClearLog(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    world.log.clearLines();
}

int VirtualNikonMisuseCount(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    return static_cast<int>(world.log.misuses().size());
}

int VirtualNikonMisuse(char* buffer, int capacity)
{
    return textOut(buffer, capacity, [](const World& world) {
        std::string text;
        for (const std::string& misuse : world.log.misuses()) {
            text += misuse + "\n";
        }
        return text;
    });
}

void VirtualNikonClearMisuse(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    world.log.clearMisuses();
}

int VirtualNikonOpenCount(int level)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    const auto& all = world.objects.all();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const auto& object) {
        return level == 0 || object->level == static_cast<std::uint32_t>(level);
    }));
}

int VirtualNikonOpenObjects(char* buffer, int capacity)
{
    return textOut(buffer, capacity, [](const World& world) {
        std::string text;
        for (const vn::ObjectRef& object : world.objects.all()) {
            text += object->name();
            for (const auto& procedure : object->procedures) {
                text += " " + std::to_string(procedure.first);
            }
            text += "\n";
        }
        return text;
    });
}

int VirtualNikonForgetObjects(void)
{
    World& world = vn::world();
    Lock lock(world.mutex);
    const auto count = static_cast<int>(world.objects.all().size());
    world.pending.clear();
    world.events.clear();
    vn::stopThread(world, lock);
    world.objects.clear();
    world.changed.notify_all();
    return count;
}

int VirtualNikonAddItem(int camera, uint32_t dataTypes, int fileType, uint32_t rowBytes,
                        const void* bytes, int64_t size)
{
    int number = -1;
    withCamera(camera, [&](World& world, const auto& found) {
        if (size < 0 || size > UINT32_MAX || (bytes == nullptr && size > 0)) {
            return refuse(world, "0 to 4 GiB of content");
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
    World& world = vn::world();
    const Lock lock(world.mutex);
    const auto found = pictureAt(world, picture);
    for (const auto& camera : world.cameras) {
        if (camera == nullptr || found == nullptr) {
            continue;
        }
        const auto item =
            std::find_if(camera->items.begin(), camera->items.end(),
                         [&](const auto& listed) { return listed->picture == found; });
        if (item != camera->items.end()) {
            const std::shared_ptr<vn::Item> gone = *item;
            gone->isGone = true;
            vn::removeItem(world, *camera, gone, true);
            return 1;
        }
    }
    return refuse(world, "no camera lists this picture");
}

int VirtualNikonItemCount(int camera)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    vn::develop(world);
    const auto found = world.camera(camera);
    return found == nullptr ? -1 : static_cast<int>(found->items.size());
}

int VirtualNikonPictureCount(void)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    vn::develop(world);
    return static_cast<int>(world.pictures.size());
}

int VirtualNikonWaitForPictures(int count, int timeoutMs)
{
    return waitFor(timeoutMs, [&](const World& world) {
        return static_cast<int>(world.pictures.size()) >= count;
    });
}

int VirtualNikonWaitForDelivered(int count, int timeoutMs)
{
    return waitFor(timeoutMs, [&](const World& world) {
        return std::count_if(world.pictures.begin(), world.pictures.end(),
                             [](const auto& picture) { return picture->delivered > 0; }) >= count;
    });
}

int VirtualNikonPictureList(char* buffer, int capacity)
{
    return textOut(buffer, capacity, [](const World& world) {
        std::string text;
        for (const auto& picture : world.pictures) {
            text += describe(*picture);
        }
        return text;
    });
}

int64_t VirtualNikonPictureValue(int picture, const char* field)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    vn::develop(world);
    const auto found = pictureAt(world, picture);
    if (found == nullptr) {
        world.lastError = "no such picture";
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
    return textOut(buffer, capacity, [&](const World& world) {
        const auto found = pictureAt(world, picture);
        return found == nullptr ? std::string() : found->name;
    });
}

int64_t VirtualNikonPictureBytes(int picture, void* buffer, int64_t capacity)
{
    World& world = vn::world();
    const Lock lock(world.mutex);
    vn::develop(world);
    const auto found = pictureAt(world, picture);
    if (found == nullptr || found->bytes == nullptr) {
        world.lastError = "no such picture, or its bytes are not kept";
        return -1;
    }
    return steering::copyOut(found->bytes->data(), found->bytes->size(), buffer, capacity);
}

}  // extern "C"
