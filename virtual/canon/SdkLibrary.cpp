// The library itself: start and end, the list of cameras, references, handlers, sessions.
#include <algorithm>
#include <cstring>

#include "canon/Call.h"
#include "common/Configure.h"

namespace vc = virtualcanon;
using vc::Call;
using vc::CallSpec;
using vc::Connection;
using vc::Kind;
using vc::Object;
using vc::shown;
using vc::World;
namespace result = vc::result;

namespace {

// A name as the records hold it; one of 256 bytes leaves no room for a terminator.
void fillName(char (&field)[kEdsMaxName], const void* name, std::size_t length)
{
    std::memset(field, 0, sizeof field);
    if (length > 0) {
        std::memcpy(field, name, std::min(length, sizeof field));
    }
}

void endSession(World& world, Connection& connection)
{
    vc::leaveExposure(world, *connection.body);
    connection.isOpen = false;
    connection.areButtonsLocked = false;
    connection.room = -1;
    connection.body->set(vc::property::kSaveTo, 1);
}

// The application gives up its last reference on a camera.
void letGo(Call& call, Connection& connection)
{
    if (connection.isOpen && connection.isAlive && !connection.wasCloseTried) {
        call.misuse("camera released with its session open");
    }
    if (connection.isOpen) {
        endSession(call.world(), connection);
    }
    connection.onProperty = {};
    connection.onObject = {};
    connection.onState = {};
    for (auto& known : call.world().connections) {
        if (known.get() == &connection) {
            known = nullptr;
        }
    }
}

EdsError initialize(Call& call)
{
    World& world = call.world();
    if (!world.isInitialised()) {
        virtualcamera::readEnvironment(virtualcamera::maker(), "LUMATIE_VIRTUAL_CANON");
    }
    vc::startThreads(world, call.lock());
    return result::kOk;
}

EdsError terminate(Call& call)
{
    World& world = call.world();
    if (!world.isInitialised()) {
        return result::kOk;
    }
    vc::stopThreads(world, call.lock());
    for (const std::string& leak : world.objects.leaks()) {
        call.misuse("leaked " + leak);
    }
    for (auto& connection : world.connections) {
        if (connection != nullptr && connection->isOpen) {
            endSession(world, *connection);
        }
        connection = nullptr;
    }
    for (const auto& body : world.bodies) {
        if (body != nullptr) {
            body->exposures = 0;
            body->isKeptOpen = false;
        }
    }
    world.objects.clear();
    return result::kOk;
}

EdsError cameraList(Call& call, EdsCameraListRef* list)
{
    if (!call.isGiven(list, "the list")) {
        return result::kInvalidPointer;
    }
    Object object;
    object.kind = Kind::kList;
    for (const auto& body : call.world().bodies) {
        if (body != nullptr && body->isPlugged) {
            object.cameras.push_back(body->number());
        }
    }
    *list = call.world().objects.add(std::move(object));
    return result::kOk;
}

// A reference on a camera; a second one on the same camera counts on the same object.
EdsBaseRef takeCamera(World& world, const std::shared_ptr<vc::Body>& body)
{
    const auto number = static_cast<std::size_t>(body->number());
    std::shared_ptr<Connection>& connection = world.connections[number];
    if (connection != nullptr) {
        const EdsBaseRef known = world.objects.cameraOf(connection.get());
        ++world.objects.find(known)->references;
        return known;
    }
    connection = std::make_shared<Connection>(body);
    Object object;
    object.kind = Kind::kCamera;
    object.connection = connection;
    return world.objects.add(std::move(object));
}

EdsError childAt(Call& call, EdsBaseRef parent, std::int32_t index, EdsBaseRef* child)
{
    if (!call.isGiven(child, "the child")) {
        return result::kInvalidPointer;
    }
    *child = nullptr;
    const Object* list = call.object(parent, Kind::kList);
    if (list == nullptr) {
        return result::kInvalidHandle;
    }
    if (index < 0 || static_cast<std::size_t>(index) >= list->cameras.size()) {
        return result::kInvalidIndex;
    }
    const auto body = call.world().body(list->cameras[static_cast<std::size_t>(index)]);
    if (body == nullptr || !body->isPlugged) {
        return static_cast<EdsError>(call.world().options.goneCode);
    }
    *child = takeCamera(call.world(), body);
    return result::kOk;
}

EdsError deviceInfo(Call& call, EdsCameraRef camera, EdsDeviceInfo* info)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(camera, false, error);
    if (connection == nullptr) {
        return error;
    }
    if (!call.isGiven(info, "the record")) {
        return result::kInvalidPointer;
    }
    const vc::Body& body = *connection->body;
    fillName(info->szPortName, body.portName.data(),
             std::min<std::size_t>(body.portName.size(), 255));
    fillName(info->szDeviceDescription, body.name().data(), body.name().size());
    info->deviceSubType = body.subType();
    info->reserved = 0;
    vc::fillExtra(call.world().options.extraBytes, info);
    return result::kOk;
}

std::uint32_t release(Call& call, EdsBaseRef reference)
{
    World& world = call.world();
    const Object* object = call.object(reference, Kind::kNone);
    if (object == nullptr) {
        return result::kNoReference;
    }
    const std::shared_ptr<Connection> connection = object->connection;
    const std::uint32_t left = world.objects.release(reference);
    if (left == 0 && connection != nullptr) {
        letGo(call, *connection);
    }
    return left;
}

// What the camera knows already, for the one who has just begun to listen.
void tellAtOnce(World& world, const std::shared_ptr<Connection>& connection)
{
    if (world.options.eventsAtOnce == 0) {
        return;
    }
    for (const std::uint32_t id : connection->body->ids()) {
        vc::Event event;
        event.connection = connection;
        event.code = vc::event::kPropertyChanged;
        event.property = id;
        event.isInside = true;
        vc::raise(world, event);
    }
}

// Registers one of the three handlers.
template <typename Function>
EdsError setHandler(const char* name, EdsCameraRef camera, std::uint32_t eventClass,
                    std::uint32_t rightClass, Function function, void* context,
                    vc::Handler<Function> Connection::*member)
{
    const CallSpec spec{name, vc::arguments({shown(camera), shown(eventClass)}), camera};
    return vc::answer(spec, [&](Call& call) -> EdsError {
        EdsError error = result::kOk;
        const auto connection = call.camera(camera, false, error);
        if (connection == nullptr) {
            return error;
        }
        if ((eventClass & 0xFF00U) != rightClass) {
            call.misuse("event class " + shown(eventClass) + " is not " + shown(rightClass));
            return result::kInvalidParameter;
        }
        connection.get()->*member = {function, context};
        if (function != nullptr && rightClass == 0x100) {
            tellAtOnce(call.world(), connection);
        }
        return result::kOk;
    });
}

EdsError openSession(Call& call, EdsCameraRef camera)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(camera, false, error);
    if (connection == nullptr) {
        return error;
    }
    if (connection->isOpen) {
        return static_cast<EdsError>(call.world().options.reopenCode);
    }
    connection->isOpen = true;
    connection->wasCloseTried = false;

    vc::Changes everything;
    everything.values = connection->body->ids();
    for (const std::uint32_t id : everything.values) {
        if (connection->body->hasList(id)) {
            everything.lists.push_back(id);
        }
    }
    vc::raiseChanges(call.world(), connection, everything);
    call.world().changed.notify_all();
    return result::kOk;
}

EdsError closeSession(Call& call, EdsCameraRef camera)
{
    const Object* object = call.object(camera, Kind::kCamera);
    if (object == nullptr) {
        return result::kInvalidHandle;
    }
    const std::shared_ptr<Connection> connection = object->connection;
    connection->wasCloseTried = true;
    const EdsError error = call.check(*connection, true);
    if (error == result::kOk) {
        endSession(call.world(), *connection);
    }
    return error;
}

}  // namespace

extern "C" {

EdsError EDSAPI EdsInitializeSDK()
{
    CallSpec spec{"EdsInitializeSDK", ""};
    spec.needsInitialised = false;
    return vc::answer(spec, initialize);
}

EdsError EDSAPI EdsTerminateSDK()
{
    CallSpec spec{"EdsTerminateSDK", ""};
    spec.needsInitialised = false;
    return vc::answer(spec, terminate);
}

EdsError EDSAPI EdsGetCameraList(EdsCameraListRef* list)
{
    const CallSpec spec{"EdsGetCameraList", ""};
    return vc::answer(spec, [&](Call& call) { return cameraList(call, list); });
}

EdsError EDSAPI EdsGetChildCount(EdsBaseRef parent, std::uint32_t* count)
{
    const CallSpec spec{"EdsGetChildCount", shown(parent), parent};
    return vc::answer(spec, [&](Call& call) -> EdsError {
        if (!call.isGiven(count, "the count")) {
            return result::kInvalidPointer;
        }
        *count = 0;
        const Object* object = call.object(parent, Kind::kNone);
        if (object == nullptr || object->kind == Kind::kStream || object->kind == Kind::kImage) {
            return result::kInvalidHandle;
        }
        *count = static_cast<std::uint32_t>(object->cameras.size());
        return result::kOk;
    });
}

EdsError EDSAPI EdsGetChildAtIndex(EdsBaseRef parent, std::int32_t index, EdsBaseRef* child)
{
    CallSpec spec{"EdsGetChildAtIndex", vc::arguments({shown(parent), std::to_string(index)}),
                  parent};
    spec.parameter = index;
    return vc::answer(spec, [&](Call& call) { return childAt(call, parent, index, child); });
}

EdsError EDSAPI EdsGetDeviceInfo(EdsCameraRef camera, EdsDeviceInfo* info)
{
    const CallSpec spec{"EdsGetDeviceInfo", shown(camera), camera};
    return vc::answer(spec, [&](Call& call) { return deviceInfo(call, camera, info); });
}

std::uint32_t EDSAPI EdsRelease(EdsBaseRef object)
{
    CallSpec spec{"EdsRelease", shown(object), object};
    // What a handler gives back while the library waits for it is no leak.
    spec.isCutOff = false;
    return vc::answer(spec, [&](Call& call) { return release(call, object); });
}

EdsError EDSAPI EdsSetPropertyEventHandler(EdsCameraRef camera, std::uint32_t eventClass,
                                           EdsPropertyEventHandler handler, void* context)
{
    return setHandler("EdsSetPropertyEventHandler", camera, eventClass, 0x100, handler, context,
                      &Connection::onProperty);
}

EdsError EDSAPI EdsSetObjectEventHandler(EdsCameraRef camera, std::uint32_t eventClass,
                                         EdsObjectEventHandler handler, void* context)
{
    return setHandler("EdsSetObjectEventHandler", camera, eventClass, 0x200, handler, context,
                      &Connection::onObject);
}

EdsError EDSAPI EdsSetCameraStateEventHandler(EdsCameraRef camera, std::uint32_t eventClass,
                                              EdsStateEventHandler handler, void* context)
{
    return setHandler("EdsSetCameraStateEventHandler", camera, eventClass, 0x300, handler, context,
                      &Connection::onState);
}

EdsError EDSAPI EdsOpenSession(EdsCameraRef camera)
{
    CallSpec spec{"EdsOpenSession", shown(camera), camera};
    spec.talksToCamera = true;
    return vc::answer(spec, [&](Call& call) { return openSession(call, camera); });
}

EdsError EDSAPI EdsCloseSession(EdsCameraRef camera)
{
    CallSpec spec{"EdsCloseSession", shown(camera), camera};
    spec.talksToCamera = true;
    return vc::answer(spec, [&](Call& call) { return closeSession(call, camera); });
}

}  // extern "C"
