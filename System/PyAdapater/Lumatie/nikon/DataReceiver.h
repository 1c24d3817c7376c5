// Takes over a picture from a driver module, part by part, and writes it into the export folder.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Maid.h"
#include "nikon/Handles.h"
#include "nikon/MaidDriver.h"
#include "platform/Platform.h"

namespace nikon {

// The record of one acquisition. Thread-safe.
class DataReceiver
{
public:
    // `itemId`: the item whose data is taken over. `heartbeat` notes each part.
    DataReceiver(std::int32_t itemId, std::shared_ptr<ModuleHeartbeat> heartbeat);
    DataReceiver(const DataReceiver&) = delete;
    DataReceiver& operator=(const DataReceiver&) = delete;
    ~DataReceiver();

    // Takes one part. `info` is a MaidFileInfo or MaidImageInfo as its kind says, `data` the bytes.
    // Parts come in order; with the last one the file is written, and the next part begins another.
    // Returns what the module is told: 0, also when the file could not be written; kMaidOutOfMemory
    // for a part that there is no room for; or kMaidFileFailed when there is no folder, the file
    // cannot be made or closed, or the sizes contradict each other.
    MaidResult take(const void* info, const void* data);

    // What became of each picture that came whole: its path, or kLastFileError.
    std::vector<std::string> results() const;

    // Whether the module says that the item may be removed, its data being in safety.
    bool mayRemoveItem() const;

    std::int32_t itemId() const { return m_itemId; }

private:
    struct Part;
    class Buffer;

    enum class Written { whole, inPart, notClosed };

    MaidResult takePart(const Part& part, const void* data);
    MaidResult finish(const Part& part);
    Written write(platform::File file);
    void note(std::string result);

    const std::int32_t m_itemId;
    const std::shared_ptr<ModuleHeartbeat> m_heartbeat;
    mutable std::mutex m_lock;         // guards the fields below
    std::unique_ptr<Buffer> m_buffer;  // null until the first part of a picture
    std::vector<std::string> m_results;
    bool m_mayRemoveItem = false;
};

// The acquisitions under way by the handles that the module has.
Handles<DataReceiver>& receivers();

// The data procedure. A part for an acquisition that is over is refused.
MaidResult MAIDAPI receiveData(MaidReference reference, const void* info, const void* data);

}  // namespace nikon
