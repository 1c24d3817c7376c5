// Everything the library knows, behind one lock.
#pragma once

#include <list>
#include <memory>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "common/Platform.h"
#include "common/World.h"
#include "nikon/CallRules.h"
#include "nikon/Events.h"
#include "nikon/Objects.h"
#include "nikon/Pending.h"
#include "nikon/Pictures.h"
#include "nikon/Transfer.h"

namespace virtualnikon {

// What can be corrupt about transfers.
struct TransferCorruption {
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
struct Options : virtualcamera::SharedOptions {
    std::int64_t capturePending = 1;  // shutter.pending: 0 the start of a capture completes at once
    std::int64_t reads = 1;           // shutter.reads: during an exposure, 0 none, 1 all, 2 most
    std::int64_t sets = 1;            // shutter.sets: during an exposure
    std::int64_t workAnswer = 0;      // shutter.work_answer: of "Async" during an exposure
    std::int64_t fileType = 0;        // picture.file_type: 0 by the quality, -1 rows
    std::int64_t remove = 1;          // items.remove: 0 stay listed, 1 go when fetched, 2 and tell
    std::int64_t newestFirst = 0;     // items.newest_first
    std::int64_t thumbnails = 0;      // items.thumbnails: 1 pictures have a thumbnail too
    std::int64_t chunk = 262144;      // transfer.chunk, bytes
    std::int64_t chunksPerCall = 16;  // transfer.per_call; 0: all of it when it is started
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
    TransferCorruption data;
};

// What is empty before the first call and after the last.
struct State {
    Corruptions corruptions;
    CommandRules rules;

    std::vector<std::shared_ptr<Camera>> cameras;  // by number; null: removed
    std::vector<std::shared_ptr<Picture>> pictures;
    std::set<std::pair<std::uint32_t, std::uint32_t>> inventedChildren;  // told of by a test
    ObjectTable objects;
    std::list<PendingRef> pending;
    std::list<std::shared_ptr<Exposure>> exposures;
    std::list<Event> events;

    int delivering = 0;                        // procedures of the application that run
    std::list<std::thread::id> callsUnderWay;  // threads in a command, nested ones more than once
};

struct World final : virtualcamera::World, State {
    World();

    Options options;
    std::thread thread;  // for completions on a thread of the library's own
    std::unique_ptr<virtualcamera::LoadedWhile> loaded;  // while there is that thread
    bool isThreadStopping = false;
    const Object* threadInside = nullptr;  // whose completion that thread delivers now

    // The camera of this number, null when there is none.
    std::shared_ptr<Camera> camera(int number) const
    {
        return virtualcamera::atNumber(cameras, number);
    }

    // The same of a camera that there is.
    const std::shared_ptr<Camera>& existing(int number) const
    {
        return cameras[static_cast<std::size_t>(number)];
    }
};

World& world();

}  // namespace virtualnikon
