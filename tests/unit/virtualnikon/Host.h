// What the tests of the virtual Nikon camera share: an application that drives it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Driver.h"
#include "virtualcamera/Decoded.h"
#include "virtualcamera/Steered.h"

constexpr int kDeadlineMs = 20000;

// What came of a command.
struct Outcome {
    MaidResult result = 0;      // of the entry point
    int completions = 0;        // so far
    MaidResult completion = 0;  // of the last completion
    std::thread::id thread;     // that completed it

    bool isGood() const { return result == 0 && completions == 1 && completion == 0; }
};

// An enumeration as it was read.
struct List {
    MaidEnum record{};
    Bytes array;

    std::vector<std::string> texts() const;
    std::vector<std::uint32_t> numbers() const;
    std::string current() const;
};

// A file or an image that the data procedure got.
struct Received {
    std::uint32_t kind = 0;
    std::uint32_t fileType = 0;
    std::uint32_t total = 0;
    std::uint32_t rowBytes = 0;
    std::uint32_t removeFlag = 0;
    std::vector<std::uint32_t> lengths;  // of the parts
    Bytes bytes;
};

// A tethering application with a tree of open objects.
class Host
{
public:
    struct Event {
        MaidObject* object;
        std::uint32_t code;
        std::uint64_t parameter;
    };
    struct Progress {
        std::uint32_t command;
        std::uint32_t parameter;
        std::uint32_t done;
        std::uint32_t total;
    };

    Host() = default;
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Opens the module and its first source, with their procedures.
    void open();

    // Opens one object below another (null: the module) with its procedures; null when refused.
    MaidObject* openChild(MaidObject* parent, std::uint32_t id);

    // Takes the procedures away and closes the object; everything in the right order.
    void close(MaidObject* object);
    void closeAll();

    MaidObject* module() const { return m_module; }
    MaidObject* source() const { return m_source; }

    // Issues a command and runs pending work until it has completed, or until `calls` is used up.
    Outcome issue(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                  std::uint32_t dataType = 0, MaidData data = 0, int calls = 100000) const;

    // Issues a command and leaves it to itself; the outcome changes when it completes.
    std::shared_ptr<Outcome> begin(MaidObject* object, std::uint32_t command,
                                   std::uint32_t parameter, std::uint32_t dataType = 0,
                                   MaidData data = 0) const;

    // One call to run pending work.
    static MaidResult async(MaidObject* object);

    std::vector<MaidCapInfo> capabilities(MaidObject* object) const;

    // The descriptor; all zeros when there is none.
    MaidCapInfo capability(MaidObject* object, std::uint32_t id) const;

    List list(MaidObject* object, std::uint32_t id) const;
    std::uint32_t number(MaidObject* object, std::uint32_t id) const;
    Outcome setNumber(MaidObject* object, std::uint32_t id, std::uint32_t value) const;
    Outcome setPosition(MaidObject* object, std::uint32_t id, std::uint32_t position) const;
    Outcome setProcedure(MaidObject* object, std::uint32_t id, void (*procedure)(),
                         void* reference) const;
    Outcome clearProcedure(MaidObject* object, std::uint32_t id) const;

    // The ids of an object's children.
    std::vector<std::uint32_t> children(MaidObject* object) const;

    // Presses the shutter through the module.
    Outcome shoot() const;

    // Acquires an open data object.
    Outcome acquire(MaidObject* data);

    // Opens the item's data, acquires it and closes both again.
    Outcome fetch(std::uint32_t item, std::uint32_t dataId = kMaidItemImage);

    // The events that came, for all objects or for one code.
    std::vector<Event> events;
    std::vector<std::uint64_t> parameters(std::uint32_t code) const;

    std::vector<Progress> progress;
    Received received;

    // Called in the procedures before they go on.
    std::function<MaidResult()> inDataProcedure;
    std::function<void(const Event& event)> inEventProcedure;

private:
    struct Slot {
        Host* host;
        MaidObject* object;
    };

    static void MAIDAPI onCompletion(MaidObject* object, std::uint32_t command,
                                     std::uint32_t parameter, std::uint32_t dataType, MaidData data,
                                     MaidReference reference, MaidResult result);
    static void MAIDAPI onEvent(MaidReference reference, std::uint32_t event, MaidData parameter);
    static void MAIDAPI onProgress(std::uint32_t command, std::uint32_t parameter,
                                   MaidReference reference, std::uint32_t done,
                                   std::uint32_t total);
    static MaidResult MAIDAPI onData(MaidReference reference, const void* info, const void* data);
    static std::uint32_t MAIDAPI onRequest(MaidReference reference, void* request);

    void closeOne(MaidObject* object);
    MaidResult take(const void* info, const void* data);

    struct Node {
        std::unique_ptr<MaidObject> record;
        std::unique_ptr<Slot> slot;
        MaidObject* parent = nullptr;
    };

    MaidObject* m_module = nullptr;
    MaidObject* m_source = nullptr;
    std::vector<Node> m_nodes;
};

// Factory state before each test, and no misuse after it unless the test took note of it.
class NikonTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
};

// With an application that has the first source open.
class NikonOpenTest : public NikonTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Takes a picture through the module; the id of its item.
    std::uint32_t picture();

    Host m_host;
};

template <typename Record>
MaidData dataOf(Record* record)
{
    return reinterpret_cast<MaidData>(record);
}

Bytes pictureBytes(int picture);
Bytes pattern(std::size_t size);
