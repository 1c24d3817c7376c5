// What each command does.
#include "nikon/Commands.h"

#include <algorithm>
#include <cstring>

#include "common/Text.h"
#include "nikon/Codes.h"

namespace virtualnikon {

namespace {

using virtualcamera::CallLog;

// Where the application wants a record read or written.
void* pointerIn(const Command& command)
{
    return reinterpret_cast<void*>(command.data);  // NOLINT(performance-no-int-to-ptr)
}

// True when the data is of this type and there; notes a misuse otherwise.
bool hasData(CallLog& log, const Command& command, std::uint32_t dataType)
{
    if (command.dataType == dataType && command.data != 0) {
        return true;
    }
    misuse(log, command,
           command.dataType != dataType ? "data type " + std::to_string(command.dataType) +
                                              " instead of " + std::to_string(dataType)
                                        : "no data");
    return false;
}

const Corruption& corruptionOf(const Corruptions& corruptions, const Object& object,
                               std::uint32_t id)
{
    static const Corruption kNone;
    const auto found = corruptions.find({object.level, id});
    return found == corruptions.end() ? kNone : found->second;
}

// The capability, if the operation is permitted.
std::optional<Capability> capabilityOf(const World& world, const Command& command,
                                       std::uint32_t operation)
{
    for (Capability& capability :
         capabilitiesOf(*command.object, world.cameras, world.corruptions)) {
        if (capability.id == command.parameter) {
            return (capability.operations & operation) != 0 ? std::optional(std::move(capability))
                                                            : std::nullopt;
        }
    }
    return std::nullopt;
}

MaidResult openModule(World& world, const Command& command)
{
    auto* record = static_cast<MaidObject*>(pointerIn(command));
    if (world.objects.find(kMaidLevelModule, 0) != nullptr) {
        misuse(world.log, command, "the module is open already");
        return result::kOpenAlready;
    }
    // Addresses of an earlier session mean nothing in this one.
    world.objects.forgetClosed();
    const auto module = std::make_shared<Object>();
    module->level = kMaidLevelModule;
    module->id = command.parameter;
    module->record = record;
    world.objects.add(module);
    return kMaidOk;
}

// The child of a parent before it is open; null when there is none of this id.
ObjectRef makeChild(const std::vector<std::shared_ptr<Camera>>& cameras, const Object& parent,
                    std::uint32_t id)
{
    const std::vector<std::uint32_t> ids = childIds(parent, cameras);
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
        return nullptr;
    }
    auto child = std::make_shared<Object>();
    child->level = parent.level + 1;
    child->id = id;
    child->camera = parent.camera;
    child->connection = parent.connection;
    child->item = parent.item;
    if (parent.level == kMaidLevelModule) {
        for (const auto& camera : cameras) {
            if (camera != nullptr && camera->body->isPlugged && camera->body->id() == id) {
                child->camera = camera;
                child->connection = camera->connections;
            }
        }
    } else if (parent.level == kMaidLevelSource) {
        for (const auto& item : parent.camera->items) {
            if (item->id == id) {
                child->item = item;
            }
        }
    }
    return child;
}

// Ids that were never listed are the application's invention, unless the module told of them.
bool isInvented(const World& world, const Object& parent, std::uint32_t id)
{
    const Corruption& corruption = corruptionOf(world.corruptions, parent, kMaidCapChildren);
    if (world.inventedChildren.count({parent.level, id}) != 0 || corruption.count ||
        parent.isGone()) {
        return false;
    }
    if (parent.level == kMaidLevelSource) {
        return id == 0 || id >= parent.camera->body->nextItem;
    }
    if (parent.level == kMaidLevelModule) {
        return std::none_of(world.cameras.begin(), world.cameras.end(), [&](const auto& camera) {
            return camera == nullptr || camera->body->id() == id;
        });
    }
    return true;
}

MaidResult open(World& world, const Command& command)
{
    if (!hasData(world.log, command, kMaidDataTypeObjectPtr)) {
        return result::kWrongData;
    }
    auto* record = static_cast<MaidObject*>(pointerIn(command));
    if (world.objects.find(record) != nullptr) {
        misuse(world.log, command, "the record is in use for another object");
        return result::kOpenAlready;
    }
    if (command.object == nullptr) {
        return openModule(world, command);
    }
    const Object& parent = *command.object;
    if (world.objects.child(parent, command.parameter) != nullptr) {
        if (world.inventedChildren.count({parent.level, command.parameter}) == 0) {
            misuse(world.log, command,
                   "child " + std::to_string(command.parameter) + " is open already");
        }
        return result::kOpenAlready;
    }
    const ObjectRef child = makeChild(world.cameras, parent, command.parameter);
    if (child == nullptr || parent.isGone()) {
        if (isInvented(world, parent, command.parameter)) {
            misuse(world.log, command, "no child " + std::to_string(command.parameter));
        }
        return result::kNoChild;
    }
    child->record = record;
    child->parent = command.object;
    world.objects.add(child);
    if (child->level == kMaidLevelItem) {
        ++child->item->picture->opened;
    }
    return kMaidOk;
}

void checkProcedures(World& world, const Command& command, const Object& object)
{
    if (object.isGone()) {
        return;
    }
    for (const auto& procedure : object.procedures) {
        const bool isAllowed =
            procedure.first == kMaidCapDataProc && world.options.dataProcedure == 0;
        if (isAllowed || object.keptByRule.count(procedure.first) != 0) {
            continue;
        }
        misuse(world.log, command,
               "procedure " + std::to_string(procedure.first) + " is still installed on " +
                   object.name());
    }
}

void closeWithChildren(World& world, Lock& lock, const Command& command)
{
    std::vector<ObjectRef> objects{command.object};
    for (std::size_t i = 0; i < objects.size(); ++i) {
        const ObjectRef parent = objects[i];
        for (const ObjectRef& child : world.objects.children(*parent)) {
            misuse(world.log, command,
                   "closed before its children: " + parent->name() + " before " + child->name());
            objects.push_back(child);
        }
    }
    for (auto object = objects.rbegin(); object != objects.rend(); ++object) {
        checkProcedures(world, command, **object);
        abortPending(world, lock, *object);
        if ((*object)->level == kMaidLevelSource) {
            leaveExposure(world, *(*object)->camera);
        }
        if ((*object)->isOpen) {
            world.objects.close(*object);
        }
    }
}

MaidResult close(World& world, Lock& lock, const Command& command)
{
    closeWithChildren(world, lock, command);
    if (command.object->level == kMaidLevelModule) {
        world.events.clear();
        stopThread(world, lock);
    }
    return kMaidOk;
}

std::uint32_t descriptorCount(const World& world, const Object& object)
{
    const auto truth =
        static_cast<std::uint32_t>(capabilitiesOf(object, world.cameras, world.corruptions).size());
    return corruptionOf(world.corruptions, object, kAllCapabilities).count.value_or(truth);
}

MaidResult getCapCount(World& world, const Command& command)
{
    if (!hasData(world.log, command, kMaidDataTypeUnsignedPtr)) {
        return result::kWrongData;
    }
    Object& object = *command.object;
    object.toldDescriptors = descriptorCount(world, object);
    std::memcpy(pointerIn(command), &object.toldDescriptors, sizeof object.toldDescriptors);
    return kMaidOk;
}

MaidCapInfo descriptorOf(const Capability& capability, const Corruption& corruption)
{
    MaidCapInfo info{};
    info.id = capability.id;
    info.type = capability.type;
    info.operations = capability.operations;
    capability.description.copy(info.description, kMaidDescriptionSize - 1);
    if (corruption.isUnterminated) {
        const auto end = std::min(capability.description.size(), kMaidDescriptionSize);
        std::memset(info.description + end, 'x', kMaidDescriptionSize - end);
    }
    return info;
}

MaidResult getCapInfo(World& world, const Command& command)
{
    const Object& object = *command.object;
    const std::uint32_t needed = descriptorCount(world, object);
    const bool isEmpty = needed == 0 && command.parameter == 0;
    if (!isEmpty && !hasData(world.log, command, kMaidDataTypeCapInfoPtr)) {
        return result::kWrongData;
    }
    if (command.parameter != needed) {
        if (command.parameter != object.toldDescriptors) {
            misuse(world.log, command,
                   "a buffer for " + std::to_string(command.parameter) +
                       " descriptors instead of " + std::to_string(object.toldDescriptors));
        }
        return kMaidBufferSize;
    }
    std::vector<MaidCapInfo> all;
    for (const Capability& capability : capabilitiesOf(object, world.cameras, world.corruptions)) {
        all.push_back(
            descriptorOf(capability, corruptionOf(world.corruptions, object, capability.id)));
    }
    auto* out = static_cast<std::uint8_t*>(pointerIn(command));
    for (std::uint32_t i = 0; i < needed && !all.empty(); ++i) {
        std::memcpy(out + i * sizeof(MaidCapInfo), &all[i % all.size()], sizeof(MaidCapInfo));
    }
    return kMaidOk;
}

// The enumeration as it is told.
MaidEnum enumerationOf(const Capability& capability, const Corruption& corruption)
{
    MaidEnum told{};
    const std::size_t elements =
        capability.isText() ? capability.packed().size() : capability.choices();
    told.elementType = corruption.elementType.value_or(capability.elementType);
    told.elements = corruption.count.value_or(static_cast<std::uint32_t>(elements));
    told.value = corruption.current.value_or(capability.current);
    told.elementSize = corruption.elementSize.value_or(capability.elementSize());
    return told;
}

std::int64_t arrayBytes(const MaidEnum& record)
{
    return record.elementSize <= 0
               ? 0
               : static_cast<std::int64_t>(record.elements) * record.elementSize;
}

MaidResult get(World& world, const Command& command)
{
    const auto capability = capabilityOf(world, command, kMaidOperationGet);
    if (!capability) {
        return result::kNoCapability;
    }
    Object& object = *command.object;
    const Corruption& corruption = corruptionOf(world.corruptions, object, capability->id);
    if (capability->elementType == 0) {
        if (!hasData(world.log, command, kMaidDataTypeUnsignedPtr)) {
            return result::kWrongData;
        }
        const std::uint32_t value = corruption.current.value_or(capability->number);
        std::memcpy(pointerIn(command), &value, sizeof value);
        return kMaidOk;
    }
    if (!hasData(world.log, command, kMaidDataTypeEnumPtr)) {
        return result::kWrongData;
    }
    const MaidEnum told = enumerationOf(*capability, corruption);
    object.toldBytes[capability->id] = arrayBytes(told);
    // The array's address is the application's.
    std::memcpy(pointerIn(command), &told, offsetof(MaidEnum, array));
    return kMaidOk;
}

Bytes arrayOf(const Capability& capability, const Corruption& corruption, std::size_t size)
{
    Bytes array = repeated(capability.packed(), size);
    if (!array.empty() && corruption.openTexts == 1) {
        array.back() = 'x';
    } else if (corruption.openTexts == 2) {
        std::replace(array.begin(), array.end(), std::uint8_t{0}, std::uint8_t{'x'});
    }
    return array;
}

MaidResult getArray(World& world, const Command& command)
{
    const auto capability = capabilityOf(world, command, kMaidOperationGetArray);
    if (!capability || capability->elementType == 0) {
        return result::kNoCapability;
    }
    if (!hasData(world.log, command, kMaidDataTypeEnumPtr)) {
        return result::kWrongData;
    }
    const Object& object = *command.object;
    const Corruption& corruption = corruptionOf(world.corruptions, object, capability->id);
    MaidEnum record{};
    std::memcpy(&record, pointerIn(command), sizeof record);
    const std::int64_t room = arrayBytes(record);
    const std::int64_t needed = arrayBytes(enumerationOf(*capability, corruption));
    if (record.array == nullptr && needed > 0) {
        misuse(world.log, command, "no array");
        return result::kWrongData;
    }
    if (room < needed) {
        const auto told = object.toldBytes.find(capability->id);
        if (told == object.toldBytes.end() || told->second != room) {
            misuse(world.log, command,
                   "an array of " + std::to_string(room) + " bytes instead of " +
                       std::to_string(needed));
        }
        return kMaidBufferSize;
    }
    const MaidEnum told = enumerationOf(*capability, corruption);
    std::memcpy(static_cast<std::uint8_t*>(pointerIn(command)) + offsetof(MaidEnum, elements),
                &told.elements, sizeof told.elements);
    const Bytes array = arrayOf(*capability, corruption, static_cast<std::size_t>(needed));
    std::copy(array.begin(), array.end(), static_cast<std::uint8_t*>(record.array));
    return kMaidOk;
}

MaidResult setProcedure(CallLog& log, const Command& command)
{
    Object& object = *command.object;
    if (command.dataType == kMaidDataTypeNull && command.data == 0) {
        object.procedures.erase(command.parameter);
        return kMaidOk;
    }
    if (!hasData(log, command, kMaidDataTypeCallbackPtr)) {
        return result::kWrongData;
    }
    MaidCallback callback{};
    std::memcpy(&callback, pointerIn(command), sizeof callback);
    if (callback.procedure == nullptr) {
        object.procedures.erase(command.parameter);
    } else {
        object.procedures[command.parameter] = callback;
    }
    return kMaidOk;
}

MaidResult setOnBody(World& world, const Command& command, std::uint32_t value)
{
    const auto changes = command.object->camera->body->set(command.parameter, value);
    if (!changes) {
        return result::kOutOfRange;
    }
    if (world.options.eventsOnSet != 0) {
        raiseChanges(world, *command.object->camera, *changes);
    }
    return kMaidOk;
}

MaidResult set(World& world, const Command& command)
{
    const auto capability = capabilityOf(world, command, kMaidOperationSet);
    if (!capability) {
        return result::kNoCapability;
    }
    if (command.parameter <= kMaidCapUserInterfaceProc) {
        return setProcedure(world.log, command);
    }
    Object& object = *command.object;
    if (capability->elementType != 0) {
        if (!hasData(world.log, command, kMaidDataTypeEnumPtr)) {
            return result::kWrongData;
        }
        MaidEnum record{};
        std::memcpy(&record, pointerIn(command), sizeof record);
        return setOnBody(world, command, record.value);
    }
    if (command.dataType != kMaidDataTypeUnsigned) {
        misuse(world.log, command,
               "data type " + std::to_string(command.dataType) + " for a number");
        return result::kWrongData;
    }
    const auto value = static_cast<std::uint32_t>(command.data);
    if (object.level == kMaidLevelSource) {
        return setOnBody(world, command, value);
    }
    object.numbers[command.parameter] = value;
    return kMaidOk;
}

// A command that completes with the work that it begins.
PendingRef handOver(World& world, Command& command)
{
    PendingRef pending = pendingOf(command, kMaidOk);
    pending->isReady = false;
    command.isHandedOver = true;
    addPending(world, pending);
    return pending;
}

MaidResult capture(World& world, Lock& lock, Command& command)
{
    const auto exposure = press(world, command.object->camera, false);
    if (exposure == nullptr) {
        return result::kBusy;
    }
    if (world.options.progress == 2) {
        showProgress(world, lock, *command.object, command.command, command.parameter, 0, 0);
    }
    if (world.options.capturePending == 0 || command.procedure == nullptr) {
        return kMaidOk;
    }
    handOver(world, command)->exposure = exposure;
    return kMaidPending;
}

MaidResult acquire(World& world, Lock& lock, Command& command)
{
    const ObjectRef data = command.object;
    if (data->procedures.count(kMaidCapDataProc) == 0) {
        misuse(world.log, command, "no data procedure is installed");
        return result::kNoDataProc;
    }
    const bool isRunning =
        std::any_of(world.pending.begin(), world.pending.end(), [&](const PendingRef& pending) {
            return pending->object == data && pending->transfer != nullptr;
        });
    if (isRunning) {
        return result::kBusy;
    }
    if (command.procedure == nullptr) {
        return result::kWrongData;
    }
    const PendingRef pending = handOver(world, command);
    pending->transfer = planTransfer(world.options, *data);
    if (world.options.progress != 0) {
        const std::int64_t told = world.options.data.progressTotal;
        showProgress(world, lock, *data, command.command, command.parameter, 0,
                     told < 0 ? pending->transfer->total : static_cast<std::uint32_t>(told));
    }
    if (world.options.chunksPerCall != 0 || pending->transfer == nullptr) {
        return kMaidPending;
    }
    runTransfer(world, lock, pending, true);
    if (!pending->isReady || !pending->how.isAtOnce() || !data->isOpen) {
        return kMaidPending;
    }
    const MaidResult result = pending->result;
    world.pending.remove(pending);
    complete(world, lock, pending);
    return result;
}

MaidResult start(World& world, Lock& lock, Command& command)
{
    if (!capabilityOf(world, command, kMaidOperationStart)) {
        return result::kNoCapability;
    }
    if (command.parameter == kMaidCapCapture && command.object->level == kMaidLevelSource) {
        return capture(world, lock, command);
    }
    if (command.parameter == kMaidCapAcquire && command.object->level == kMaidLevelData) {
        return acquire(world, lock, command);
    }
    return result::kNoCapability;
}

MaidResult enumerateChildren(World& world, const Command& command)
{
    const ObjectRef& object = command.object;
    if (object->level == kMaidLevelData) {
        return result::kNoCommand;
    }
    for (const std::uint32_t id : childIds(*object, world.cameras)) {
        if (world.objects.child(*object, id) == nullptr) {
            raiseChild(world, kMaidEventAddChild, object, id);
        }
    }
    return kMaidOk;
}

// Objects that are gone can still be left as they have to be.
bool isOfGoneObject(const Command& command)
{
    const bool isLeaving =
        command.command == kMaidCommandClose || command.command == kMaidCommandAsync ||
        command.command == kMaidCommandOpen ||
        (command.command == kMaidCommandCapSet && command.dataType == kMaidDataTypeNull);
    return command.object != nullptr && command.object->isGone() && !isLeaving;
}

// Whether the camera keeps this setting to itself while it exposes.
bool isClosedByExposure(const World& world, const Command& command)
{
    const bool isOfBody = command.object != nullptr && command.object->level == kMaidLevelSource &&
                          command.object->camera->body->find(command.parameter) != nullptr;
    if (!isOfBody || !command.object->camera->body->isExposing) {
        return false;
    }
    switch (command.command) {
        case kMaidCommandCapSet:
            return world.options.sets == 0;
        case kMaidCommandCapGet:
        case kMaidCommandCapGetArray:
            return world.options.reads == 0 ||
                   (world.options.reads == 2 && command.parameter == kMaidCapLiveness);
        default:
            return false;
    }
}

// What running pending work is answered: a camera may say that it is at something.
MaidResult workAnswer(const World& world)
{
    return world.exposures.empty() ? kMaidOk : static_cast<MaidResult>(world.options.workAnswer);
}

}  // namespace

MaidResult perform(World& world, Lock& lock, Command& command)
{
    if (isOfGoneObject(command)) {
        return static_cast<MaidResult>(world.options.goneCode);
    }
    if (command.needsCompletion() && command.procedure == nullptr) {
        misuse(world.log, command, "no completion procedure");
    }
    if (isClosedByExposure(world, command)) {
        return result::kBusy;
    }
    switch (command.command) {
        case kMaidCommandAsync:
            return workAnswer(world);
        case kMaidCommandOpen:
            return open(world, command);
        case kMaidCommandClose:
            return close(world, lock, command);
        case kMaidCommandGetCapCount:
            return getCapCount(world, command);
        case kMaidCommandGetCapInfo:
            return getCapInfo(world, command);
        case kMaidCommandCapStart:
            return start(world, lock, command);
        case kMaidCommandCapSet:
            return set(world, command);
        case kMaidCommandCapGet:
            return get(world, command);
        case kMaidCommandCapGetArray:
            return getArray(world, command);
        case kMaidCommandEnumChildren:
            return enumerateChildren(world, command);
        default:
            misuse(world.log, command, "unknown command " + std::to_string(command.command));
            return result::kNoCommand;
    }
}

}  // namespace virtualnikon
