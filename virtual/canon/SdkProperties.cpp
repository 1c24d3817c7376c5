// Properties, commands and the capacity.
#include <algorithm>
#include <array>
#include <cstring>

#include "canon/Call.h"

namespace vc = virtualcanon;
using vc::Bytes;
using vc::Call;
using vc::CallSpec;
using vc::Connection;
using vc::Kind;
using vc::Object;
using vc::Property;
using vc::shown;
namespace property = vc::property;
namespace result = vc::result;

namespace {

// One stray size that is known to be in use for these two: what is beyond the value is zero.
bool isCustomarySize(EdsPropertyID id, std::uint32_t size)
{
    return size == 9 && (id == property::kWhiteBalance || id == property::kColorTemperature);
}

// The property of a camera or of a live-view image; null with `error` set when there is none.
Property* findProperty(Call& call, EdsBaseRef reference, EdsPropertyID id, EdsError& error)
{
    Object* object = call.object(reference, Kind::kNone);
    if (object == nullptr || (object->kind != Kind::kCamera && object->kind != Kind::kImage)) {
        error = result::kInvalidHandle;
        return nullptr;
    }
    Property* found = nullptr;
    if (object->kind == Kind::kImage) {
        const auto entry = object->frame->properties.find(id);
        found = entry == object->frame->properties.end() ? nullptr : &entry->second;
    } else {
        error = call.check(*object->connection, true);
        if (error != result::kOk) {
            return nullptr;
        }
        found = object->connection->body->find(id);
    }
    error = found == nullptr ? result::kPropertyUnavailable : result::kOk;
    return found;
}

// Fills all that was asked for, as libraries do.
void fill(const Property& entry, std::uint8_t* data, std::size_t size)
{
    const std::size_t known = std::min(size, entry.value.size());
    const bool isText = entry.type == vc::type::kText;
    const bool hasRubbish = isText && entry.hasRubbish;
    std::memset(data, hasRubbish ? 0xA5 : 0, size);
    if (known > 0) {
        std::memcpy(data, entry.value.data(), known);
    }
    if (!isText || !entry.isUnterminated) {
        return;
    }
    for (std::size_t i = 0; i < size; ++i) {
        data[i] = data[i] == 0 || i >= known ? std::uint8_t{'x'} : data[i];
    }
}

EdsError propertySize(Call& call, EdsBaseRef object, EdsPropertyID id, EdsDataType* type,
                      std::uint32_t* size)
{
    EdsError error = result::kOk;
    const Property* entry = findProperty(call, object, id, error);
    if (entry == nullptr) {
        return error;
    }
    if (!call.isGiven(type, "the type") || !call.isGiven(size, "the size")) {
        return result::kInvalidPointer;
    }
    *type = entry->falseType.value_or(entry->type);
    *size = entry->falseSize.value_or(static_cast<std::uint32_t>(entry->value.size()));
    return result::kOk;
}

EdsError propertyData(Call& call, EdsBaseRef object, EdsPropertyID id, std::uint32_t size,
                      void* data)
{
    EdsError error = result::kOk;
    const Property* entry = findProperty(call, object, id, error);
    if (entry == nullptr) {
        return error;
    }
    if (!call.isGiven(data, "the data")) {
        return result::kInvalidPointer;
    }
    const std::size_t right = entry->value.size();
    const bool isCorrupt = entry->falseSize || entry->falseType;
    const std::string told = "size " + std::to_string(size) + " for property " + shown(id) +
                             " of " + std::to_string(right) + " bytes";
    if (size < right && !isCorrupt) {
        call.misuse(told);
        return result::kInvalidLength;
    }
    const bool mayBeLonger = entry->type == vc::type::kText || isCustomarySize(id, size);
    if (size > right && !mayBeLonger && !isCorrupt) {
        call.misuse(told);
    }
    fill(*entry, static_cast<std::uint8_t*>(data), size);
    return result::kOk;
}

EdsError propertyDescription(Call& call, EdsBaseRef object, EdsPropertyID id,
                             EdsPropertyDesc* description)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(object, true, error);
    if (connection == nullptr) {
        return error;
    }
    if (!call.isGiven(description, "the description")) {
        return result::kInvalidPointer;
    }
    const vc::Body& body = *connection->body;
    if (!body.hasList(id)) {
        return result::kPropertyUnavailable;
    }
    const vc::Values values = body.allowed(id);
    const Property* entry = body.find(id);
    *description = EdsPropertyDesc{};
    vc::fillExtra(call.world().options.extraBytes, description);
    description->access = values.empty() ? 0 : 2;
    description->numElements = static_cast<std::int32_t>(values.size());
    if (entry != nullptr && entry->falseCount) {
        description->numElements = *entry->falseCount;
    }
    std::copy(values.begin(), values.end(), description->propDesc);
    return result::kOk;
}

bool isBusy(const vc::Options& options, const Connection& connection)
{
    return options.busy == 2 && connection.body->exposures > 0;
}

EdsError setProperty(Call& call, EdsBaseRef object, EdsPropertyID id, std::uint32_t size,
                     const void* data)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(object, true, error);
    if (connection == nullptr) {
        return error;
    }
    if (!call.isGiven(data, "the data")) {
        return result::kInvalidPointer;
    }
    if (isBusy(call.world().options, *connection)) {
        return result::kDeviceBusy;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    const Bytes value(bytes, bytes + size);
    vc::Body& body = *connection->body;
    error = body.check(id, value);
    if (error == result::kInvalidLength) {
        call.misuse("size " + std::to_string(size) + " for property " + shown(id));
    }
    if (error != result::kOk) {
        return error;
    }

    const bool wasOn = (body.value(property::kEvfOutput) & vc::kEvfToHost) != 0;
    vc::raiseChanges(call.world(), connection, body.set(id, value));
    const bool isOn = (body.value(property::kEvfOutput) & vc::kEvfToHost) != 0;
    if (isOn && !wasOn) {
        body.framesToWarmUp = static_cast<int>(call.world().options.warmUp);
    }
    return result::kOk;
}

EdsError pressButton(Call& call, const std::shared_ptr<Connection>& connection,
                     std::int32_t parameter)
{
    switch (parameter) {
        case 0:
            vc::releaseButton(call.world(), *connection->body);
            return result::kOk;
        case 1:
            connection->body->focus();
            return call.world().options.focusFails != 0 ? result::kFocusFailed : result::kOk;
        case 3:
            return vc::press(call.world(), call.lock(), connection->body, false);
        default:
            return result::kInvalidParameter;
    }
}

EdsError focusLens(Call& call, vc::Body& body, std::uint32_t command, std::int32_t parameter)
{
    if ((body.value(property::kEvfOutput) & vc::kEvfToHost) == 0) {
        return result::kInvalidParameter;
    }
    if (command == vc::command::kDriveLens) {
        return body.driveLens(static_cast<std::uint32_t>(parameter)) ? result::kOk
                                                                     : result::kInvalidParameter;
    }
    if (parameter != 0 && parameter != 1) {
        return result::kInvalidParameter;
    }
    if (parameter == 1 && call.world().options.focusFails != 0) {
        return result::kFocusFailed;
    }
    if (parameter == 1) {
        body.focus();
    }
    return result::kOk;
}

EdsError sendCommand(Call& call, EdsCameraRef camera, std::uint32_t command, std::int32_t parameter)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(camera, true, error);
    if (connection == nullptr) {
        return error;
    }
    const bool isRelease = command == vc::command::kShutterButton && parameter == 0;
    if (isBusy(call.world().options, *connection) && !isRelease) {
        return result::kDeviceBusy;
    }
    switch (command) {
        case vc::command::kTakePicture:
            return connection->body->isBulb()
                       ? result::kInvalidParameter
                       : vc::press(call.world(), call.lock(), connection->body, false);
        case vc::command::kShutterButton:
            return pressButton(call, connection, parameter);
        case vc::command::kAutofocus:
        case vc::command::kDriveLens:
            return focusLens(call, *connection->body, command, parameter);
        default:
            return result::kInvalidParameter;
    }
}

EdsError sendStatusCommand(Call& call, EdsCameraRef camera, std::uint32_t command)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(camera, true, error);
    if (connection == nullptr) {
        return error;
    }
    if (command > 1) {
        return result::kInvalidParameter;
    }
    connection->areButtonsLocked = command == 0;
    return result::kOk;
}

EdsError setCapacity(Call& call, EdsCameraRef camera, const EdsCapacity& capacity)
{
    EdsError error = result::kOk;
    const auto connection = call.camera(camera, true, error);
    if (connection == nullptr) {
        return error;
    }
    if (capacity.numberOfFreeClusters < 0 || capacity.bytesPerSector < 0) {
        return result::kInvalidParameter;
    }
    connection->room = static_cast<std::int64_t>(capacity.numberOfFreeClusters) *
                       static_cast<std::int64_t>(capacity.bytesPerSector);
    return result::kOk;
}

CallSpec propertySpec(const char* function, std::string arguments, EdsBaseRef object,
                      EdsPropertyID id)
{
    CallSpec spec{function, std::move(arguments), object};
    spec.talksToCamera = true;
    spec.property = id;
    return spec;
}

CallSpec commandSpec(const char* function, EdsCameraRef camera, std::uint32_t command,
                     std::int32_t parameter)
{
    CallSpec spec{function,
                  vc::arguments({shown(camera), shown(command),
                                 shown(static_cast<std::uint32_t>(parameter))}),
                  camera};
    spec.talksToCamera = true;
    spec.command = command;
    spec.parameter = parameter;
    return spec;
}

// A value that is set, as the log shows it: a number, a point, or that there was something else.
std::string shownValue(const void* data, std::uint32_t size)
{
    std::array<std::int32_t, 2> point{};
    if (data != nullptr && size == sizeof point) {
        std::memcpy(point.data(), data, sizeof point);
        return "(" + std::to_string(point[0]) + ", " + std::to_string(point[1]) + ")";
    }
    if (data == nullptr || size != sizeof(std::uint32_t)) {
        return data == nullptr ? "null" : "...";
    }
    std::uint32_t value = 0;
    std::memcpy(&value, data, sizeof value);
    return shown(value);
}

}  // namespace

extern "C" {

EdsError EDSAPI EdsGetPropertySize(EdsBaseRef object, EdsPropertyID property,
                                   std::int32_t parameter, EdsDataType* type, std::uint32_t* size)
{
    CallSpec spec =
        propertySpec("EdsGetPropertySize",
                     vc::arguments({shown(object), shown(property), std::to_string(parameter)}),
                     object, property);
    spec.parameter = parameter;
    return vc::answer(spec,
                      [&](Call& call) { return propertySize(call, object, property, type, size); });
}

EdsError EDSAPI EdsGetPropertyData(EdsBaseRef object, EdsPropertyID property,
                                   std::int32_t parameter, std::uint32_t size, void* data)
{
    CallSpec spec = propertySpec("EdsGetPropertyData",
                                 vc::arguments({shown(object), shown(property),
                                                std::to_string(parameter), std::to_string(size)}),
                                 object, property);
    spec.parameter = parameter;
    return vc::answer(spec,
                      [&](Call& call) { return propertyData(call, object, property, size, data); });
}

EdsError EDSAPI EdsGetPropertyDesc(EdsBaseRef object, EdsPropertyID property,
                                   EdsPropertyDesc* description)
{
    const CallSpec spec = propertySpec(
        "EdsGetPropertyDesc", vc::arguments({shown(object), shown(property)}), object, property);
    return vc::answer(
        spec, [&](Call& call) { return propertyDescription(call, object, property, description); });
}

EdsError EDSAPI EdsSetPropertyData(EdsBaseRef object, EdsPropertyID property,
                                   std::int32_t parameter, std::uint32_t size, const void* data)
{
    CallSpec spec =
        propertySpec("EdsSetPropertyData",
                     vc::arguments({shown(object), shown(property), std::to_string(parameter),
                                    std::to_string(size), shownValue(data, size)}),
                     object, property);
    spec.parameter = parameter;
    return vc::answer(spec,
                      [&](Call& call) { return setProperty(call, object, property, size, data); });
}

EdsError EDSAPI EdsSendCommand(EdsCameraRef camera, std::uint32_t command, std::int32_t parameter)
{
    const CallSpec spec = commandSpec("EdsSendCommand", camera, command, parameter);
    return vc::answer(spec,
                      [&](Call& call) { return sendCommand(call, camera, command, parameter); });
}

EdsError EDSAPI EdsSendStatusCommand(EdsCameraRef camera, std::uint32_t command,
                                     std::int32_t parameter)
{
    const CallSpec spec = commandSpec("EdsSendStatusCommand", camera, command, parameter);
    return vc::answer(spec, [&](Call& call) { return sendStatusCommand(call, camera, command); });
}

EdsError EDSAPI EdsSetCapacity(EdsCameraRef camera, EdsCapacity capacity)
{
    CallSpec spec{
        "EdsSetCapacity",
        vc::arguments({shown(camera), std::to_string(capacity.numberOfFreeClusters),
                       std::to_string(capacity.bytesPerSector), std::to_string(capacity.reset)}),
        camera};
    spec.talksToCamera = true;
    return vc::answer(spec, [&](Call& call) { return setCapacity(call, camera, capacity); });
}

}  // extern "C"
