// An object of a driver module's tree, with its capabilities.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fakes/Records.h"

namespace fake {

struct Cap {
    MaidCapInfo info = {};
    std::uint32_t value = 0;     // of a number
    MaidEnum record = {};        // of an enumeration
    Bytes array;                 // of an enumeration
    MaidCallback callback = {};  // of a procedure

    // Makes it an enumeration of these. Returns the capability.
    Cap& texts(const std::vector<std::string>& values, std::uint32_t position);
    Cap& numbers(const std::vector<std::uint32_t>& values, std::uint32_t position);
};

struct Object {
    std::uint32_t level = 0;
    std::uint32_t id = 0;
    std::vector<Cap> caps;
    std::vector<std::unique_ptr<Object>> children;  // what it lists
    std::vector<Part> parts;                        // what a Data object delivers
    MaidObject* open = nullptr;
    Object* parent = nullptr;

    // The capability, null when there is none.
    Cap* find(std::uint32_t capId);
    const Cap* find(std::uint32_t capId) const;

    // The capability. Throws std::out_of_range when there is none.
    Cap& at(std::uint32_t capId);

    // Adds a capability, or replaces it.
    Cap& cap(std::uint32_t capId, std::uint32_t type, std::uint32_t operations,
             const std::string& description = "");
    void remove(std::uint32_t capId);

    // Adds what every object has: the procedures, and the list of its children.
    void addCommonCaps();

    // The child, null when there is none.
    Object* child(std::uint32_t childId) const;

    // The child. Throws std::out_of_range when there is none.
    Object& childAt(std::uint32_t childId) const;

    // Adds a child without capabilities.
    Object& addChild(std::uint32_t childLevel, std::uint32_t childId);

    // The child is not listed any more. Null when there is none.
    std::unique_ptr<Object> takeChild(std::uint32_t childId);

    std::vector<std::uint32_t> childIds() const;
    std::vector<MaidCapInfo> infos() const;

    // An enumeration as it is read. That of the children lists them, unless it was made another.
    MaidEnum recordOf(const Cap& cap) const;
    Bytes arrayOf(const Cap& cap) const;
};

}  // namespace fake
