// The objects that the application has open, and the pictures behind some of them.
//
// Not thread-safe: the world guards them.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Maid.h"
#include "common/Picture.h"
#include "nikon/Body.h"

namespace virtualnikon {

// A picture that a camera took, or that a test put there.
struct Picture final : virtualcamera::Picture {
    std::int32_t fileType = kMaidFileJpeg;  // kRows: rows of an image
    std::uint32_t rows = 0;
    std::uint32_t rowBytes = 0;
    scene::PictureFacts facts;
    bool isOnCamera = false;

    int opened = 0;     // times that its item was opened
    int started = 0;    // transfers that began
    int delivered = 0;  // transfers that the application took over whole

    Fields ownFields() const override
    {
        return {{"type", fileType},      {"rows", rows},     {"row_bytes", rowBytes},
                {"listed", isOnCamera},  {"opened", opened}, {"started", started},
                {"delivered", delivered}};
    }
};

// A picture as the camera lists it.
struct Item {
    std::uint32_t id = 0;
    std::uint32_t dataTypes = kMaidItemImage;
    std::shared_ptr<Picture> picture;
    bool isListed = true;
    bool isGone = false;  // taken away while it may be in use
};

// A camera and what is on it.
struct Camera {
    std::shared_ptr<Body> body;
    std::vector<std::shared_ptr<Item>> items;
    int connections = 0;  // times that it was plugged in again
};

// An open object.
struct Object {
    std::uint32_t level = 0;
    std::uint32_t id = 0;
    MaidObject* record = nullptr;  // the application's
    void* handle = nullptr;        // what the record's moduleRef holds
    MaidReference clientRef = nullptr;
    bool isOpen = true;
    std::shared_ptr<Object> parent;
    std::shared_ptr<Camera> camera;  // of sources and what is below
    int connection = 0;              // of the camera, when it was opened
    std::shared_ptr<Item> item;      // of items and their data
    std::map<std::uint32_t, MaidCallback> procedures;
    std::set<std::uint32_t> keptByRule;  // procedures that a rule refused to take away

    // What the application was told last: sizes that its buffers may have.
    std::uint32_t toldDescriptors = 0;
    std::map<std::uint32_t, std::int64_t> toldBytes;

    std::map<std::uint32_t, std::uint32_t> numbers;  // what was set on the module object

    // "source#1"
    std::string name() const;

    // True when the camera or the picture behind it is not there any more.
    bool isGone() const;
};

using ObjectRef = std::shared_ptr<Object>;

class ObjectTable
{
public:
    // Takes an object in and fills the application's record.
    void add(const ObjectRef& object);

    // The object of a record, null when there is none. The record is not looked into.
    ObjectRef find(const MaidObject* record) const;

    // The open object of a level and id, null when there is none. Level 0 and id 0 match all.
    ObjectRef find(std::uint32_t level, std::uint32_t id) const;

    // The open child of an object.
    ObjectRef child(const Object& parent, std::uint32_t id) const;
    std::vector<ObjectRef> children(const Object& parent) const;

    // True for a record that was closed and has not been opened again.
    bool wasClosed(const MaidObject* record) const { return m_closed.count(record) != 0; }

    void close(const ObjectRef& object);
    void forgetClosed() { m_closed.clear(); }
    void clear();

    const std::list<ObjectRef>& all() const { return m_objects; }

private:
    std::list<ObjectRef> m_objects;  // in the order they were opened
    std::set<const void*> m_closed;
    std::uintptr_t m_handles = 0;
};

// The ids of an object's children: cameras, items or data.
std::vector<std::uint32_t> childIds(const Object& object,
                                    const std::vector<std::shared_ptr<Camera>>& cameras);

// What the object can do, in ascending order, corruption of descriptors included.
std::vector<Capability> capabilitiesOf(const Object& object,
                                       const std::vector<std::shared_ptr<Camera>>& cameras,
                                       const Corruptions& corruptions);

}  // namespace virtualnikon
