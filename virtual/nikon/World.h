// Everything the library knows, behind one lock.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/World.h"
#include "nikon/CallRules.h"
#include "nikon/Objects.h"

namespace virtualnikon {

using steering::Clock;
using steering::Lock;

// What can be untrue about transfers.
struct TransferUntruths {
    std::int64_t total = -1;          // data.total: announced instead of the true one; -1: true
    std::int64_t totalDelta = 0;      // data.total_delta: added to it
    std::int64_t lengthDelta = 0;     // data.length_delta: added to each part's length
    std::int64_t rowBytes = -1;       // data.row_bytes: announced instead of the true ones
    std::int64_t kind = -1;           // data.kind: announced instead of the true bits
    std::int64_t fileType = -1;       // data.file_type: announced instead of the true one
    std::int64_t repeat = 0;          // data.repeat: more times that each part comes
    std::int64_t missing = 0;         // data.missing: parts that do not come, from the end
    std::int64_t extra = 0;           // data.extra: parts after the end
    std::int64_t empty = 0;           // data.empty: parts of no bytes before the first
    std::int64_t null = 0;            // data.null: 1 parts without bytes to read
    std::int64_t remove = -1;         // data.remove_flag: announced instead of the true one
    std::int64_t goOn = 0;            // data.go_on: 1 refused parts do not end the transfer
    std::int64_t progressTotal = -1;  // progress.total; -1: the true one
};

// What settings lines without a camera set; the defaults are the factory's.
struct Options : steering::SharedOptions {
    std::int64_t capturePending = 1;  // shutter.pending: 0 the start of a capture completes at once
    std::int64_t fileType = 0;        // picture.file_type: 0 by the quality, -1 rows
    std::int64_t remove = 1;          // items.remove: 0 stay listed, 1 go when fetched, 2 and tell
    std::int64_t newestFirst = 0;     // items.newest_first
    std::int64_t thumbnails = 0;      // items.thumbnails: 1 pictures have a thumbnail too
    std::int64_t chunk = 262144;      // transfer.chunk, bytes
    std::int64_t chunksPerCall = 16;  // transfer.per_call; 0: all of it when it is started
    double rate = 0;                  // transfer.rate in MB/s; 0: as fast as it goes
    std::int64_t progress = 1;        // progress.calls: 0 none, 1 transfers, 2 captures too
    std::int64_t completeCalls = 0;   // complete.calls
    std::int64_t completeMs = 0;      // complete.ms
    std::int64_t completeThread = 0;  // complete.thread
    std::int64_t closeAborts = 1;     // complete.at_close: 0 dropped, 1 aborted
    std::int64_t eventsInAll = 0;     // events.in_all: 1 in every command, not only in "Async"
    std::int64_t eventsOnSet = 1;     // events.on_set: 1 tells of values the application set
    std::int64_t goneCode = -10;      // gone.code
    std::int64_t oneThread = 1;       // misuse.one_thread
    std::int64_t dataProcedure = 1;   // misuse.data_procedure: 1 it may not be left at the close
    TransferUntruths data;
};

// An event on its way to the application.
struct Event {
    std::weak_ptr<Object> object;
    std::uint32_t code = 0;
    std::uint64_t parameter = 0;
    Clock::time_point due{};
    std::shared_ptr<Item> item;  // whose appearance it tells of
    bool isForced = false;       // a test wants it whatever is open already
    bool hasReference = false;   // `reference` in place of the procedure's own
    MaidReference reference = nullptr;
};

// An exposure that runs.
struct Exposure {
    std::shared_ptr<Camera> camera;
    bool isFromBody = false;
    scene::PictureFacts facts;
    QualityParts quality;
    Clock::time_point due{};
};

// One part of a transfer as it is told.
struct Part {
    std::size_t offset = 0;
    std::size_t size = 0;
    std::uint32_t length = 0;  // bytes, or rows
};

// A picture on its way to the application.
struct Transfer {
    std::shared_ptr<Picture> picture;
    std::shared_ptr<const Bytes> bytes;
    std::vector<Part> parts;
    std::size_t next = 0;
    std::uint32_t total = 0;  // bytes, or rows
    std::uint32_t done = 0;
    std::uint32_t rowBytes = 0;
    std::uint32_t kind = 0;
    std::uint32_t fileType = 0;
    std::uint32_t removeFlag = 0;
    bool isImage = false;   // the picture itself, not its thumbnail
    bool isInside = false;  // in the application's procedure
    Clock::time_point start{};
};

// A command that has not completed.
struct Pending {
    ObjectRef object;
    MaidObject* record = nullptr;
    std::uint32_t command = 0;
    std::uint32_t parameter = 0;
    std::uint32_t dataType = 0;
    MaidData data = 0;
    MaidCompletionProcedure procedure = nullptr;
    MaidReference reference = nullptr;
    Completion how;
    MaidResult result = 0;
    bool isReady = true;   // the work is done, the completion is due as `how` says
    bool wasLeft = false;  // the command returned before it completed
    bool isLast = false;   // the object is being closed: whatever `how` says
    Clock::time_point due{};
    std::function<MaidResult()> lateWork;
    std::shared_ptr<Exposure> exposure;  // of a capture
    std::shared_ptr<Transfer> transfer;  // of an acquisition
};

using PendingRef = std::shared_ptr<Pending>;

// What is empty before the first call and after the last.
struct State {
    Untruths untruths;
    CommandRules rules;

    std::vector<std::shared_ptr<Camera>> cameras;  // by number; null: removed
    std::vector<std::shared_ptr<Picture>> pictures;
    std::set<std::pair<std::uint32_t, std::uint32_t>> untrueChildren;  // told of by a test
    ObjectTable objects;
    std::list<PendingRef> pending;
    std::list<std::shared_ptr<Exposure>> exposures;
    std::list<Event> events;

    int delivering = 0;                 // procedures of the application that run
    std::list<std::thread::id> inside;  // threads in a command, nested ones more than once
};

struct World final : steering::World, State {
    World();

    Options options;
    std::thread thread;  // for completions on a thread of the library's own
    std::unique_ptr<steering::LoadedWhile> loaded;  // while there is that thread
    bool isThreadStopping = false;
    const Object* threadInside = nullptr;  // whose completion that thread delivers now

    // The camera of this number, null when there is none.
    std::shared_ptr<Camera> camera(int number) const { return steering::atNumber(cameras, number); }

    int cameraCount() const override { return static_cast<int>(cameras.size()); }
    bool hasCamera(int number) const override { return camera(number) != nullptr; }
    void addFactoryCamera() override;
    std::string describeCamera(int number) const override;
    std::string configureOwn(const std::string& key, const std::string& value, int camera) override;
    void applyOptions() override;
    bool isIdle() const override;
    bool hasThreads() const override { return thread.joinable(); }
    void catchUp() override;
    Clock::time_point nextDue() const override;
    void unload() override;
};

World& world();

// Factory state. Cameras stay when the application has one open.
void reset(World& world);

std::shared_ptr<Camera> addCamera(World& world, const std::string& name, std::uint32_t id);
void plug(World& world, Camera& camera);
void unplug(World& world, Camera& camera);

// An event for an open object, subject to the event rules.
void raise(World& world, Event event);

// The application may open the child that this event tells of, even if there is none.
void noteUntrueChild(World& world, const Event& event);

// What a change on a camera's body means for the application.
void raiseChanges(World& world, const Camera& camera, const Changes& changes);

// The descriptors of a level are told differently from now on.
void raiseDescriptorChange(World& world, std::uint32_t level);

// Tells the parent of a child that came or went, if it is open.
void raiseChild(World& world, std::uint32_t code, const ObjectRef& parent, std::uint32_t id,
                const std::shared_ptr<Item>& item = nullptr);

// Calls the event procedures of what is due, on this thread; the lock is given up meanwhile.
void deliverEvents(World& world, Lock& lock);

// Hands a command over to be completed as `pending->how` says.
void addPending(World& world, const PendingRef& pending);

// The work of a pending command is done.
void finishPending(World& world, const PendingRef& pending, MaidResult result);

// Counts a call that runs pending work, and completes what is due; the lock is given up meanwhile.
void runPending(World& world, Lock& lock);

// Completes one command now, which must not be in the list any more.
void complete(World& world, Lock& lock, const PendingRef& pending);

// Ends what is pending on an object that goes; it completes before this returns.
void abortPending(World& world, Lock& lock, const ObjectRef& object);

// Ends the library's own thread.
void stopThread(World& world, Lock& lock);

// Begins an exposure; null when one runs already.
std::shared_ptr<Exposure> press(World& world, const std::shared_ptr<Camera>& camera,
                                bool isFromBody);

// Makes the pictures of the exposures that are over.
void develop(World& world);

// Puts a picture on a camera and lists it.
std::shared_ptr<Item> store(World& world, Camera& camera, std::uint32_t dataTypes,
                            const std::shared_ptr<Picture>& picture);

// Takes an item off a camera; with `isTold` its source is told.
void removeItem(World& world, Camera& camera, const std::shared_ptr<Item>& item, bool isTold);

// What is known of a transfer before it begins.
std::shared_ptr<Transfer> planTransfer(World& world, const Object& data);

// Delivers the parts that are due; the lock is given up meanwhile. With `isWhole` all of them.
void runTransfer(World& world, Lock& lock, const PendingRef& pending, bool isWhole);

// Calls the progress procedure of an object, if it has one; the lock is given up meanwhile.
void showProgress(World& world, Lock& lock, const Object& object, std::uint32_t command,
                  std::uint32_t parameter, std::uint32_t done, std::uint32_t total);

}  // namespace virtualnikon
