#include "fakes/Object.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace fake {

namespace {

bool listsChildren(const Cap& cap)
{
    return cap.info.id == kMaidCapChildren && cap.array.empty() && cap.record.elementType == 0;
}

}  // namespace

Cap& Cap::texts(const std::vector<std::string>& values, std::uint32_t position)
{
    array.clear();
    for (const std::string& text : values) {
        array.insert(array.end(), text.begin(), text.end());
        array.push_back(0);
    }
    record = textsRecord(array, position);
    return *this;
}

Cap& Cap::numbers(const std::vector<std::uint32_t>& values, std::uint32_t position)
{
    array = packed(values);
    record = numbersRecord(array, position);
    return *this;
}

Cap* Object::find(std::uint32_t capId)
{
    return const_cast<Cap*>(static_cast<const Object*>(this)->find(capId));
}

const Cap* Object::find(std::uint32_t capId) const
{
    const auto found = std::find_if(caps.begin(), caps.end(),
                                    [capId](const Cap& cap) { return cap.info.id == capId; });
    return found != caps.end() ? &*found : nullptr;
}

Cap& Object::at(std::uint32_t capId)
{
    if (Cap* found = find(capId)) {
        return *found;
    }
    throw std::out_of_range("no capability " + std::to_string(capId));
}

Cap& Object::cap(std::uint32_t capId, std::uint32_t type, std::uint32_t operations,
                 const std::string& description)
{
    remove(capId);
    caps.emplace_back();
    caps.back().info = capInfo(capId, type, operations, description);
    return caps.back();
}

void Object::remove(std::uint32_t capId)
{
    caps.erase(std::remove_if(caps.begin(), caps.end(),
                              [capId](const Cap& cap) { return cap.info.id == capId; }),
               caps.end());
}

void Object::addCommonCaps()
{
    cap(kMaidCapProgressProc, 0, kSettable);
    cap(kMaidCapEventProc, 0, kSettable);
    cap(kMaidCapChildren, kMaidCapTypeEnum, kMaidOperationGet, "Children");
}

Object* Object::child(std::uint32_t childId) const
{
    for (const auto& object : children) {
        if (object->id == childId) {
            return object.get();
        }
    }
    return nullptr;
}

Object& Object::childAt(std::uint32_t childId) const
{
    if (Object* found = child(childId)) {
        return *found;
    }
    throw std::out_of_range("no child " + std::to_string(childId));
}

Object& Object::addChild(std::uint32_t childLevel, std::uint32_t childId)
{
    children.push_back(std::make_unique<Object>());
    Object& added = *children.back();
    added.level = childLevel;
    added.id = childId;
    added.parent = this;
    return added;
}

std::unique_ptr<Object> Object::takeChild(std::uint32_t childId)
{
    const auto found = std::find_if(children.begin(), children.end(),
                                    [childId](const auto& one) { return one->id == childId; });
    if (found == children.end()) {
        return nullptr;
    }
    std::unique_ptr<Object> taken = std::move(*found);
    children.erase(found);
    return taken;
}

std::vector<std::uint32_t> Object::childIds() const
{
    std::vector<std::uint32_t> ids;
    ids.reserve(children.size());
    for (const auto& object : children) {
        ids.push_back(object->id);
    }
    return ids;
}

std::vector<MaidCapInfo> Object::infos() const
{
    std::vector<MaidCapInfo> infos;
    infos.reserve(caps.size());
    for (const Cap& cap : caps) {
        infos.push_back(cap.info);
    }
    return infos;
}

MaidEnum Object::recordOf(const Cap& cap) const
{
    return listsChildren(cap) ? numbersRecord(packed(childIds()), 0) : cap.record;
}

Bytes Object::arrayOf(const Cap& cap) const
{
    return listsChildren(cap) ? packed(childIds()) : cap.array;
}

}  // namespace fake
