// The record that the program keeps for each open object of a driver module.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Maid.h"

namespace nikon {

class MaidTree;
struct MaidObjectRef;
using MaidObjectPtr = std::shared_ptr<MaidObjectRef>;
using MaidCaps = std::vector<MaidCapInfo>;

// The id of the reference that stands for the Module object.
constexpr std::int32_t kRootId = 0x8000;

// Guarded by the module's lock. Events that come inside a command may close the object and replace
// its lists: whoever loops over one copies it first, and whoever goes on with an object after a
// command holds a pointer of his own and looks at `closed`.
struct MaidObjectRef {
    std::shared_ptr<MaidObject> object;
    std::int32_t id = 0;  // as it was given to the open command
    std::weak_ptr<MaidObjectRef> parent;
    std::vector<MaidObjectPtr> children;   // in the order of their opening
    std::shared_ptr<const MaidCaps> caps;  // replaced as a whole, never changed; never null
    unsigned capsVersion = 0;              // counts the replacements
    std::weak_ptr<MaidTree> tree;
    MaidReference handle = nullptr;  // what the module knows this record by
    bool opening = false;            // its open command is under way
    bool closing = false;            // its close is under way
    bool receiving = false;          // its data procedure is installed
    bool closed = false;             // no command may be issued any more
};

// A pointer of one's own: the caller's may be one that an event inside a command takes away.
inline MaidObjectPtr keep(const MaidObjectPtr& ref)
{
    return ref;
}

}  // namespace nikon
