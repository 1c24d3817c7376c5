// The functions of VirtualCamera.h.
#include "VirtualCamera.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "canon/Codes.h"
#include "canon/World.h"
#include "common/Text.h"

namespace vc = virtualcanon;
using steering::copyOut;
using steering::textFrom;
using steering::waitFor;
using vc::Bytes;
using vc::World;

namespace {

Bytes bytesFrom(const void* data, int size)
{
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    return data == nullptr || size <= 0 ? Bytes{} : Bytes(bytes, bytes + size);
}

// The world, locked as long as the answer lives.
steering::Locked<World> locked()
{
    return steering::Locked<World>(vc::world());
}

// Does `work` with a camera's body; 0 with an error when there is no such camera.
template <typename Work>
int withCamera(int camera, Work work)
{
    const auto world = locked();
    const std::shared_ptr<vc::Body> body = world->body(camera);
    if (body == nullptr) {
        return world->refuse("no such camera: " + std::to_string(camera));
    }
    return work(*world, body);
}

int change(World& world, const vc::Body& body, const vc::Changes& changes)
{
    vc::raiseChanges(world, world.connectionOf(body), changes);
    return 1;
}

// Raises a steered event; refused while the application does not use the camera.
int send(World& world, const vc::Body& body, vc::Event event)
{
    event.connection = world.connectionOf(body);
    if (event.connection == nullptr || world.crew == nullptr) {
        return world.refuse("the application does not use this camera");
    }
    vc::raise(world, event);
    return 1;
}

std::string nameOf(const vc::PictureFile& file)
{
    return {file.name.begin(), file.name.end()};
}

std::string describe(const vc::PictureFile& file)
{
    return "shot=" + std::to_string(file.shot) + " camera=" + std::to_string(file.camera) +
           " origin=" + (file.isFromBody ? "body" : "host") + " name=" + nameOf(file) +
           " size=" + std::to_string(file.size) + " to_host=" + (file.isForHost ? "1" : "0") +
           " announced=" + std::to_string(file.announced) +
           " downloaded=" + std::to_string(file.downloaded) +
           " complete=" + std::to_string(file.completed) + "\n";
}

// The code that an event is counted under; 0 stands for all.
std::optional<std::uint32_t> countedCode(std::uint32_t event)
{
    return event == 0 ? std::nullopt : std::optional(event);
}

}  // namespace

extern "C" {

void VirtualCameraReset(void)
{
    vc::reset(*locked());
}

int VirtualCameraConfigure(const char* text)
{
    return locked()->configure(textFrom(text));
}

int VirtualCameraSettings(char* buffer, int capacity)
{
    return copyOut(locked()->describeSettings(), buffer, capacity);
}

int VirtualCameraLastError(char* buffer, int capacity)
{
    return copyOut(locked()->lastError, buffer, capacity);
}

int VirtualCameraAdd(const char* name, uint32_t subType)
{
    const auto world = locked();
    const std::string text = textFrom(name).substr(0, kEdsMaxName - 1);
    return vc::addBody(*world, Bytes(text.begin(), text.end()), subType)->number();
}

int VirtualCameraSetName(int camera, const void* bytes, int length)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (length < 0 || length > static_cast<int>(kEdsMaxName)) {
            return world.refuse("a name has 0 to 256 bytes");
        }
        return change(world, *body, body->setName(bytesFrom(bytes, length)));
    });
}

int VirtualCameraRemove(int camera)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::unplug(world, *body);
        world.bodies[static_cast<std::size_t>(camera)] = nullptr;
        return 1;
    });
}

int VirtualCameraCount(void)
{
    return static_cast<int>(locked()->bodies.size());
}

int VirtualCameraUnplug(int camera)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::unplug(world, *body);
        return 1;
    });
}

int VirtualCameraPlug(int camera)
{
    return withCamera(camera, [&](World&, const auto& body) {
        body->isPlugged = true;
        return 1;
    });
}

int VirtualCameraSleep(int camera, int asleep)
{
    return withCamera(camera, [&](World&, const auto& body) {
        body->isAsleep = asleep != 0;
        return 1;
    });
}

int VirtualCameraSessionOpen(int camera)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        const auto connection = world.connectionOf(*body);
        return connection != nullptr && connection->isOpen ? 1 : 0;
    });
}

int VirtualCameraPressShutter(int camera)
{
    auto world = locked();
    const std::shared_ptr<vc::Body> body = world->body(camera);
    const auto connection = body == nullptr ? nullptr : world->connectionOf(*body);
    if (body == nullptr || body->isAsleep) {
        return world->refuse("no such camera, or it sleeps");
    }
    if (connection != nullptr && connection->areButtonsLocked) {
        return world->refuse("the buttons are locked");
    }
    const std::uint32_t code = vc::press(*world, world.lock(), body, true);
    if (code != vc::result::kOk) {
        return world->refuse("the camera refuses: " + steering::hexadecimal(code));
    }
    return 1;
}

int VirtualCameraTurnDial(int camera, uint32_t mode)
{
    return VirtualCameraSetProperty(camera, vc::property::kMode, mode);
}

int VirtualCameraSetProperty(int camera, uint32_t property, uint32_t value)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        return change(world, *body, body->set(property, value));
    });
}

int VirtualCameraSetPropertyBytes(int camera, uint32_t property, uint32_t type, const void* data,
                                  int size)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (size < 0) {
            return world.refuse("a size below 0");
        }
        return change(world, *body, body->set(property, bytesFrom(data, size), type));
    });
}

int VirtualCameraRemoveProperty(int camera, uint32_t property)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (body->find(property) == nullptr) {
            return world.refuse("no such property");
        }
        body->remove(property);
        return 1;
    });
}

int VirtualCameraSetAllowed(int camera, uint32_t property, const int32_t* values, int count)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (count < -1 || count > static_cast<int>(kEdsMaxDescElements)) {
            return world.refuse("0 to 128 values, or -1");
        }
        std::optional<vc::Values> list;
        if (count >= 0) {
            list.emplace(values, values + count);
        }
        return change(world, *body, body->setAllowed(property, list));
    });
}

int64_t VirtualCameraProperty(int camera, uint32_t property)
{
    std::int64_t value = -1;
    withCamera(camera, [&](World&, const auto& body) {
        if (body->find(property) != nullptr) {
            value = body->value(property);
        }
        return 1;
    });
    return value;
}

int VirtualCameraPropertyBytes(int camera, uint32_t property, void* buffer, int capacity)
{
    std::int64_t size = -1;
    withCamera(camera, [&](World&, const auto& body) {
        if (const vc::Property* entry = body->find(property)) {
            size = copyOut(entry->value.data(), entry->value.size(), buffer, capacity);
        }
        return 1;
    });
    return static_cast<int>(size);
}

int VirtualCameraAllowed(int camera, uint32_t property, int32_t* values, int capacity)
{
    int count = -1;
    withCamera(camera, [&](World&, const auto& body) {
        if (!body->hasList(property)) {
            return 0;
        }
        const vc::Values list = body->allowed(property);
        count = static_cast<int>(list.size());
        for (int i = 0; values != nullptr && i < std::min(count, capacity); ++i) {
            values[i] = list[static_cast<std::size_t>(i)];
        }
        return 1;
    });
    return count;
}

int VirtualCameraFault(const char* rule)
{
    const auto world = locked();
    return world->answer(world->faults.add(textFrom(rule)));
}

int VirtualCameraFailNext(const char* function, uint32_t code, int calls)
{
    return VirtualCameraFault((textFrom(function) + " code=" + steering::hexadecimal(code) +
                               " calls=" + std::to_string(calls))
                                  .c_str());
}

int VirtualCameraEventRule(const char* rule)
{
    const auto world = locked();
    return world->answer(world->eventRules.add(textFrom(rule)));
}

void VirtualCameraClearFaults(void)
{
    const auto world = locked();
    world->faults.clear();
    world->eventRules.clear();
}

int VirtualCameraReleaseHangs(void)
{
    return locked()->releaseHangs();
}

int VirtualCameraWaitForHang(const char* function, int timeoutMs)
{
    const std::string name = textFrom(function);
    return waitFor(vc::world(), timeoutMs, [&] { return vc::world().isHanging(name); });
}

int VirtualCameraSendPropertyEvent(int camera, uint32_t event, uint32_t property,
                                   uint32_t parameter)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::Event raised;
        raised.code = event;
        raised.property = property;
        raised.parameter = parameter;
        return send(world, *body, raised);
    });
}

int VirtualCameraSendObjectEvent(int camera, uint32_t event, void* reference)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::Event raised;
        raised.eventClass = vc::EventClass::kObject;
        raised.code = event;
        raised.reference = static_cast<EdsBaseRef>(reference);
        return send(world, *body, raised);
    });
}

int VirtualCameraSendStateEvent(int camera, uint32_t event, uint32_t parameter)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::Event raised;
        raised.eventClass = vc::EventClass::kState;
        raised.code = event;
        raised.parameter = parameter;
        return send(world, *body, raised);
    });
}

void* VirtualCameraNewItem(int camera, int file)
{
    EdsBaseRef reference = nullptr;
    withCamera(camera, [&](World& world, const auto& body) {
        vc::Object object;
        object.kind = vc::Kind::kItem;
        object.item = std::make_shared<vc::Item>();
        object.item->connection = world.connectionOf(*body);
        object.item->file = steering::atNumber(world.files, file);
        object.item->bytes = object.item->file == nullptr ? nullptr : object.item->file->bytes;
        const bool isComplete = file < 0 || object.item->bytes != nullptr;
        if (object.item->connection == nullptr || !isComplete) {
            return world.refuse("the camera is not in use, or the file is not kept");
        }
        reference = world.objects.add(std::move(object));
        return 1;
    });
    return reference;
}

int VirtualCameraEventCount(uint32_t event)
{
    return locked()->eventCount(countedCode(event));
}

int VirtualCameraWaitForEvents(uint32_t event, int count, int timeoutMs)
{
    return waitFor(vc::world(), timeoutMs,
                   [&] { return vc::world().eventCount(countedCode(event)) >= count; });
}

int VirtualCameraCallCount(const char* function)
{
    return locked()->log.calls(textFrom(function));
}

int VirtualCameraWaitForCalls(const char* function, int count, int timeoutMs)
{
    const std::string name = textFrom(function);
    return waitFor(vc::world(), timeoutMs, [&] { return vc::world().log.calls(name) >= count; });
}

int VirtualCameraWaitUntilIdle(int timeoutMs)
{
    return waitFor(vc::world(), timeoutMs, [] { return vc::world().isIdle(); });
}

int VirtualCameraLog(char* buffer, int capacity)
{
    return copyOut(locked()->log.text(), buffer, capacity);
}

int64_t VirtualCameraClock(void)
{
    return locked()->log.microseconds();
}

void VirtualCameraClearLog(void)
{
    locked()->log.clearLines();
}

int VirtualCameraMisuseCount(void)
{
    return locked()->log.misuses();
}

int VirtualCameraMisuse(char* buffer, int capacity)
{
    return copyOut(locked()->log.misuseText(), buffer, capacity);
}

void VirtualCameraClearMisuse(void)
{
    locked()->log.clearMisuses();
}

int VirtualCameraReferenceCount(const char* kind)
{
    constexpr std::array<std::string_view, 6> kKinds{"",     "list",   "camera",
                                                     "item", "stream", "image"};
    const auto world = locked();
    const std::string wanted = textFrom(kind);
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        if (kKinds[i] == wanted) {
            return world->objects.count(static_cast<vc::Kind>(i));
        }
    }
    world->lastError = "no such kind";
    return -1;
}

int VirtualCameraSetPictureName(int camera, const void* bytes, int length)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (length < 0 || length > static_cast<int>(kEdsMaxName)) {
            return world.refuse("a name has 0 to 256 bytes");
        }
        body->pictureName = bytesFrom(bytes, length);
        return 1;
    });
}

int VirtualCameraPictureCount(void)
{
    return static_cast<int>(locked()->files.size());
}

int VirtualCameraWaitForPictures(int count, int timeoutMs)
{
    return waitFor(vc::world(), timeoutMs,
                   [&] { return static_cast<int>(vc::world().files.size()) >= count; });
}

int VirtualCameraPictureList(char* buffer, int capacity)
{
    const auto world = locked();
    std::string text;
    for (const auto& file : world->files) {
        text += describe(*file);
    }
    return copyOut(text, buffer, capacity);
}

int64_t VirtualCameraPictureValue(int file, const char* field)
{
    const auto world = locked();
    const auto picture = steering::atNumber(world->files, file);
    if (picture == nullptr) {
        world->lastError = "no such file";
        return -1;
    }
    const std::string name = textFrom(field);
    const std::map<std::string, std::int64_t> values{
        {"shot", picture->shot},
        {"camera", picture->camera},
        {"origin", picture->isFromBody ? 1 : 0},
        {"size", picture->size},
        {"to_host", picture->isForHost ? 1 : 0},
        {"announced", picture->announced},
        {"downloaded", picture->downloaded},
        {"complete", picture->completed},
    };
    const auto found = values.find(name);
    return found == values.end() ? -1 : found->second;
}

int VirtualCameraPictureName(int file, char* buffer, int capacity)
{
    const auto world = locked();
    const auto picture = steering::atNumber(world->files, file);
    return copyOut(picture == nullptr ? std::string() : nameOf(*picture), buffer, capacity);
}

int64_t VirtualCameraPictureBytes(int file, void* buffer, int64_t capacity)
{
    const auto world = locked();
    const auto picture = steering::atNumber(world->files, file);
    if (picture == nullptr || picture->bytes == nullptr) {
        world->lastError = "no such file, or its bytes are not kept";
        return -1;
    }
    return copyOut(picture->bytes->data(), picture->bytes->size(), buffer, capacity);
}

int64_t VirtualCameraStreamBytes(void* stream, void* buffer, int64_t capacity)
{
    const auto world = locked();
    const vc::Object* object = world->objects.find(static_cast<EdsBaseRef>(stream));
    if (object == nullptr || object->stream == nullptr || object->stream->isFile()) {
        world->lastError = "no memory stream";
        return -1;
    }
    const Bytes& memory = object->stream->memory;
    return copyOut(memory.data(), memory.size(), buffer, capacity);
}

}  // extern "C"
