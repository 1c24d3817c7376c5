// The references that the application holds.
//
// A reference is a number dressed as a pointer and looked up in a table, so that a stale or made-up
// one is recognised and never followed. Numbers are not used twice.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "EdSdk.h"
#include "canon/Body.h"
#include "common/Picture.h"

namespace virtualcanon {

enum class Kind : std::uint8_t { kNone, kList, kCamera, kItem, kStream, kImage };

// Someone's handler and what he wants to be called with.
template <typename Function>
struct Handler {
    Function function = nullptr;
    void* context = nullptr;
};

// A camera as it was plugged in and taken from the list: it dies when the cable is pulled.
struct Connection {
    explicit Connection(std::shared_ptr<Body> itsBody) : body(std::move(itsBody)) {}

    std::shared_ptr<Body> body;
    bool isAlive = true;
    bool isOpen = false;
    bool wasCloseTried = false;
    bool areButtonsLocked = false;
    std::int64_t room = -1;  // bytes that the host offers; -1 before it has said so
    Handler<EdsPropertyEventHandler> onProperty;
    Handler<EdsObjectEventHandler> onObject;
    Handler<EdsStateEventHandler> onState;
};

// A picture file that was made, whether it went to the host or stayed on the camera.
// Its name has up to 256 bytes, 256 of them without terminator.
struct PictureFile final : virtualcamera::Picture {
    bool isForHost = false;
    int downloaded = 0;
    int completed = 0;

    Fields ownFields() const override
    {
        return {
            {"to_host", isForHost ? 1 : 0}, {"downloaded", downloaded}, {"complete", completed}};
    }
};

struct Item {
    std::shared_ptr<Connection> connection;
    std::shared_ptr<PictureFile> file;   // null for a folder
    std::shared_ptr<const Bytes> bytes;  // kept as long as the reference lives
    std::int64_t position = 0;           // of the next download
};

struct Progress {
    EdsProgressCallback function = nullptr;
    std::uint32_t option = 0;
    void* context = nullptr;
};

// A stream into a file or into memory. Written to by one call at a time.
class Stream
{
public:
    Stream() = default;
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Opens a file as EdsCreateFileStream's numbers say. Returns a result code.
    std::uint32_t open(const std::string& path, std::uint32_t disposition, std::uint32_t access);

    // Returns a result code. `failAfter` is the size in bytes at which the disk is full, -1: never.
    std::uint32_t write(const std::uint8_t* data, std::size_t size, std::int64_t failAfter);

    // Hands everything over to the system and looks whether the file is still there.
    std::uint32_t finish();

    bool isFile() const { return m_file != nullptr; }
    Bytes memory;
    Progress progress;

private:
    std::string m_path;
    std::FILE* m_file = nullptr;  // the interface wants the reason of a failure; streams hide it
    std::int64_t m_written = 0;
};

// A live-view frame and what it says about itself.
struct Frame {
    std::shared_ptr<Stream> stream;
    std::map<std::uint32_t, Property> properties;
};

struct Object {
    Kind kind = Kind::kNone;
    std::uint32_t references = 1;
    std::vector<int> cameras;  // of a list: their numbers
    std::shared_ptr<Connection> connection;
    std::shared_ptr<Item> item;
    std::shared_ptr<Stream> stream;
    std::shared_ptr<Frame> frame;
};

// Not thread-safe: the library guards it.
class ObjectTable
{
public:
    // Takes an object in; the caller owns its one reference.
    EdsBaseRef add(Object object);

    // The object, null for a reference that is none. Valid until the next change of the table.
    Object* find(EdsBaseRef reference);

    // The reference of a connection's camera, null when it has none.
    EdsBaseRef cameraOf(const Connection* connection) const;

    // Gives a reference back; the object is freed with the last one. Returns what remains.
    std::uint32_t release(EdsBaseRef reference);

    // "camera#2 with 1 reference" for each object that is left and should not be.
    std::vector<std::string> leaks() const;

    // How many objects of a kind there are, of all kinds with kNone.
    int count(Kind kind) const;

    void clear() { m_objects.clear(); }

    // True for a reference that was given out once and is none any more.
    bool isStale(EdsBaseRef reference) const;

    // "camera#2", "null", or a number for what never was a reference.
    static std::string nameOf(const void* reference);

private:
    std::map<EdsBaseRef, Object> m_objects;
    std::uintptr_t m_last = 0;
};

}  // namespace virtualcanon
