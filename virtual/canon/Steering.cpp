// The functions of VirtualCanon.h.
#include "VirtualCanon.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "canon/Codes.h"
#include "canon/World.h"
#include "common/Text.h"

namespace vc = virtualcanon;
using vc::Bytes;
using vc::World;
using virtualcamera::copyOut;
using virtualcamera::textFrom;

namespace {

Bytes bytesFrom(const void* data, int size)
{
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    return data == nullptr || size <= 0 ? Bytes{} : Bytes(bytes, bytes + size);
}

// The world, locked as long as the answer lives.
virtualcamera::Locked<World> locked()
{
    return {vc::world(), vc::world().mutex};
}

// Does `work` with a camera's body; 0 with an error when there is no such camera.
template <typename Work>
int withCamera(int camera, Work work)
{
    const auto world = locked();
    const std::shared_ptr<vc::Body> body = world->body(camera);
    if (body == nullptr) {
        return world->refuseCamera(camera);
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
    if (event.connection == nullptr || world.libraryThreads == nullptr) {
        return world.refuse("the application does not use this camera");
    }
    vc::raise(world, event);
    return 1;
}

}  // namespace

extern "C" {

int VirtualCanonSetName(int camera, const void* bytes, int length)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (length < 0 || length > static_cast<int>(kEdsMaxName)) {
            return world.refuse("a name has 0 to 256 bytes");
        }
        return change(world, *body, body->setName(bytesFrom(bytes, length)));
    });
}

int VirtualCanonSleep(int camera, int asleep)
{
    return withCamera(camera, [&](World&, const auto& body) {
        body->isAsleep = asleep != 0;
        return 1;
    });
}

int VirtualCanonSetProperty(int camera, uint32_t property, uint32_t value)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        return change(world, *body, body->set(property, value));
    });
}

int VirtualCanonSetPropertyBytes(int camera, uint32_t property, uint32_t type, const void* data,
                                 int size)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (size < 0) {
            return world.refuse("a size below 0");
        }
        return change(world, *body, body->set(property, bytesFrom(data, size), type));
    });
}

int VirtualCanonRemoveProperty(int camera, uint32_t property)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (body->find(property) == nullptr) {
            return world.refuse("no such property");
        }
        body->remove(property);
        return 1;
    });
}

int VirtualCanonSetAllowed(int camera, uint32_t property, const int32_t* values, int count)
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

int64_t VirtualCanonProperty(int camera, uint32_t property)
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

int VirtualCanonPropertyBytes(int camera, uint32_t property, void* buffer, int capacity)
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

int VirtualCanonAllowed(int camera, uint32_t property, int32_t* values, int capacity)
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

int VirtualCanonSendPropertyEvent(int camera, uint32_t event, uint32_t property, uint32_t parameter)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::Event raised;
        raised.code = event;
        raised.property = property;
        raised.parameter = parameter;
        return send(world, *body, raised);
    });
}

int VirtualCanonSendObjectEvent(int camera, uint32_t event, void* reference)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::Event raised;
        raised.eventClass = vc::EventClass::kObject;
        raised.code = event;
        raised.reference = static_cast<EdsBaseRef>(reference);
        return send(world, *body, raised);
    });
}

int VirtualCanonSendStateEvent(int camera, uint32_t event, uint32_t parameter)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        vc::Event raised;
        raised.eventClass = vc::EventClass::kState;
        raised.code = event;
        raised.parameter = parameter;
        return send(world, *body, raised);
    });
}

void* VirtualCanonNewItem(int camera, int file)
{
    EdsBaseRef reference = nullptr;
    withCamera(camera, [&](World& world, const auto& body) {
        vc::Object object;
        object.kind = vc::Kind::kItem;
        object.item = std::make_shared<vc::Item>();
        object.item->connection = world.connectionOf(*body);
        object.item->file = virtualcamera::atNumber(world.files, file);
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

int VirtualCanonReferenceCount(const char* kind)
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

int VirtualCanonSetPictureName(int camera, const void* bytes, int length)
{
    return withCamera(camera, [&](World& world, const auto& body) {
        if (length < 0 || length > static_cast<int>(kEdsMaxName)) {
            return world.refuse("a name has 0 to 256 bytes");
        }
        body->pictureName = bytesFrom(bytes, length);
        return 1;
    });
}

int64_t VirtualCanonStreamBytes(void* stream, void* buffer, int64_t capacity)
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
