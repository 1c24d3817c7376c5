#include "nikon/Objects.h"

#include <algorithm>

#include "nikon/CallRules.h"
#include "nikon/Codes.h"

namespace virtualnikon {

namespace {

constexpr std::size_t kClosedRemembered = 100000;
constexpr std::uint32_t kList = kMaidOperationGet | kMaidOperationGetArray;

Capability procedure(std::uint32_t id, const char* description)
{
    return makePlain(id, captype::kCallback, kMaidOperationSet, description);
}

Capability process(std::uint32_t id, const char* description)
{
    return makePlain(id, captype::kProcess, kMaidOperationStart, description);
}

Capability childrenOf(const Object& object, const std::vector<std::shared_ptr<Camera>>& cameras)
{
    return makeNumbers(kMaidCapChildren, kList, "Children", childIds(object, cameras));
}

std::uint32_t numberOf(const Object& object, std::uint32_t id)
{
    const auto found = object.numbers.find(id);
    return found == object.numbers.end() ? 0 : found->second;
}

std::vector<Capability> ownCapabilities(const Object& object,
                                        const std::vector<std::shared_ptr<Camera>>& cameras)
{
    std::vector<Capability> all{procedure(kMaidCapProgressProc, "Progress Procedure"),
                                procedure(kMaidCapEventProc, "Event Procedure")};
    switch (object.level) {
        case kMaidLevelModule:
            all.push_back(procedure(kMaidCapUserInterfaceProc, "UI Request Procedure"));
            all.push_back(childrenOf(object, cameras));
            all.push_back(makeNumber(kMaidCapModuleMode, kMaidOperationGet | kMaidOperationSet,
                                     "Module Mode", numberOf(object, kMaidCapModuleMode)));
            break;
        case kMaidLevelSource: {
            all.push_back(childrenOf(object, cameras));
            all.push_back(process(kMaidCapCapture, "Capture"));
            const std::vector<Capability> settings = object.camera->body->capabilities();
            all.insert(all.end(), settings.begin(), settings.end());
            break;
        }
        case kMaidLevelItem:
            all.push_back(childrenOf(object, cameras));
            all.push_back(makeNumber(kMaidCapDataTypes, kMaidOperationGet, "Data Types",
                                     object.item->dataTypes));
            break;
        default:
            all.push_back(procedure(kMaidCapDataProc, "Data Procedure"));
            all.push_back(process(kMaidCapAcquire, "Acquire"));
    }
    return all;
}

}  // namespace

std::string Object::name() const
{
    return std::string(levelName(level)) + "#" + std::to_string(id);
}

bool Object::isGone() const
{
    if (camera == nullptr) {
        return false;
    }
    return !camera->body->isPlugged || camera->connections != connection ||
           (item != nullptr && item->isGone);
}

void ObjectTable::add(const ObjectRef& object)
{
    m_closed.erase(object->record);
    object->handle = reinterpret_cast<void*>(++m_handles);  // NOLINT(performance-no-int-to-ptr)
    object->clientRef = object->record->clientRef;
    object->record->type = object->level;
    object->record->id = object->id;
    object->record->moduleRef = object->handle;
    m_objects.push_back(object);
}

ObjectRef ObjectTable::find(const MaidObject* record) const
{
    const auto found =
        std::find_if(m_objects.begin(), m_objects.end(),
                     [&](const ObjectRef& object) { return object->record == record; });
    return found == m_objects.end() ? nullptr : *found;
}

ObjectRef ObjectTable::find(std::uint32_t level, std::uint32_t id) const
{
    const auto found =
        std::find_if(m_objects.begin(), m_objects.end(), [&](const ObjectRef& object) {
            return (level == 0 || object->level == level) && (id == 0 || object->id == id);
        });
    return found == m_objects.end() ? nullptr : *found;
}

ObjectRef ObjectTable::child(const Object& parent, std::uint32_t id) const
{
    for (const ObjectRef& object : m_objects) {
        if (object->parent.get() == &parent && object->id == id) {
            return object;
        }
    }
    return nullptr;
}

std::vector<ObjectRef> ObjectTable::children(const Object& parent) const
{
    std::vector<ObjectRef> found;
    for (const ObjectRef& object : m_objects) {
        if (object->parent.get() == &parent) {
            found.push_back(object);
        }
    }
    return found;
}

void ObjectTable::close(const ObjectRef& object)
{
    object->isOpen = false;
    object->procedures.clear();
    if (m_closed.size() >= kClosedRemembered) {
        m_closed.clear();
    }
    m_closed.insert(object->record);
    m_objects.remove(object);
}

void ObjectTable::clear()
{
    for (const ObjectRef& object : m_objects) {
        object->isOpen = false;
        object->procedures.clear();
    }
    m_objects.clear();
    m_closed.clear();
}

std::vector<std::uint32_t> childIds(const Object& object,
                                    const std::vector<std::shared_ptr<Camera>>& cameras)
{
    std::vector<std::uint32_t> ids;
    if (object.level == kMaidLevelModule) {
        for (const auto& camera : cameras) {
            if (camera != nullptr && camera->body->isPlugged) {
                ids.push_back(camera->body->id());
            }
        }
    } else if (object.level == kMaidLevelSource) {
        for (const auto& item : object.camera->items) {
            if (item->isListed) {
                ids.push_back(item->id);
            }
        }
    } else if (object.level == kMaidLevelItem) {
        for (const std::uint32_t type : {kMaidItemImage, kMaidItemMovie, kMaidItemThumbnail}) {
            if ((object.item->dataTypes & type) != 0) {
                ids.push_back(type);
            }
        }
    }
    return ids;
}

std::vector<Capability> capabilitiesOf(const Object& object,
                                       const std::vector<std::shared_ptr<Camera>>& cameras,
                                       const Corruptions& corruptions)
{
    std::vector<Capability> told;
    for (Capability& capability : ownCapabilities(object, cameras)) {
        const auto found = corruptions.find({object.level, capability.id});
        if (found != corruptions.end()) {
            if (found->second.isAbsent) {
                continue;
            }
            capability.type = found->second.type.value_or(capability.type);
            capability.operations = found->second.operations.value_or(capability.operations);
            capability.description = found->second.description.value_or(capability.description);
        }
        told.push_back(std::move(capability));
    }
    return told;
}

}  // namespace virtualnikon
