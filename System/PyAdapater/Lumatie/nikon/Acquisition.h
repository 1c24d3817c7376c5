// Finds the pictures that the camera holds, fetches them and tells the host.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "nikon/DataReceiver.h"
#include "nikon/MaidTree.h"

namespace nikon {

// Which items have been written already. Thread-safe.
//
// An item that was written whole and that the camera goes on listing is not written again. Ids are
// used again: one that is not listed any more, or that is announced anew, is forgotten.
class WrittenItems
{
public:
    // The item `id` is about to be fetched.
    void begin(std::uint32_t id);

    // It was written, and counts so unless it was removed or announced anew since `begin`.
    void add();

    // The item was removed or announced anew. Returns whether it had been written.
    bool remove(std::uint32_t id);

    bool contains(std::uint32_t id) const;

    // Forgets every item that is not in `listed`.
    void keepOnly(const std::set<std::uint32_t>& listed);

private:
    mutable std::mutex m_lock;  // guards the fields below
    std::set<std::uint32_t> m_ids;
    std::uint32_t m_current = 0;  // the item of the last `begin`
    bool m_currentIsGone = false;
};

// The acquisition of one session. Used by one thread at a time, the session's monitor.
class Acquisition
{
public:
    // Sends a TETHER_GENERAL event with a status text. Returns whether to go on: no, once the
    // session's stop was requested.
    using Announce = std::function<bool(const std::string& text)>;

    // `goesOn` tells whether the session is still wanted.
    Acquisition(std::shared_ptr<MaidTree> tree, Announce announce, std::function<bool()> goesOn);

    // Goes once through the items of the camera in use: opens each, fetches its image into the
    // export folder and announces it. Each item is handled once. An item or a Data object that
    // cannot be opened ends the pass, and comes last in the next one. Returns 0 when there is
    // nothing more to do, for whatever reason.
    int AcquireNewItems();

    // The camera is about to make a picture.
    void beginExposure();

    // From now on only what that has brought is fetched, and no other items. Any thread.
    void keepToExposure() { m_onlyExposure = true; }

    // Reads the kinds of data of an item, shows them on standard output, and returns the first
    // (kMaidItem...), 0 when there is none; nothing when they cannot be read.
    std::optional<std::uint32_t> GetItemDataTypes(const MaidObjectPtr& item);

    // Fetches the data of a Data object into `receiver`; returns whether all commands were done.
    bool AcquireData(const MaidObjectPtr& data, const std::shared_ptr<DataReceiver>& receiver);

private:
    enum class Outcome { handled, passedOver, failed };

    std::optional<std::uint32_t> nextItemId(const MaidObjectPtr& source);
    void keepToExposure(std::vector<std::uint32_t>& ids);
    Outcome acquireItem(const MaidObjectPtr& source, std::int32_t id);
    MaidObjectPtr findOrOpen(const MaidObjectPtr& parent, std::int32_t id, const char* name);
    void report(const std::vector<std::string>& results);
    bool announcePicture(const std::string& lastFile);
    void remember(const std::string& lastFile);
    std::string previousFile() const;

    const std::shared_ptr<MaidTree> m_tree;
    const Announce m_announce;
    const std::function<bool()> m_goesOn;
    const std::shared_ptr<WrittenItems> m_written = std::make_shared<WrittenItems>();
    std::set<std::uint32_t> m_handled;     // in this pass
    std::set<std::uint32_t> m_putOff;      // ended an earlier pass
    std::set<std::uint32_t> m_ofExposure;  // what the last exposure has brought
    std::set<std::uint32_t> m_before;      // known when the last exposure began
    std::set<std::uint32_t> m_listed;      // when the list was last read
    std::atomic<bool> m_onlyExposure{false};
    std::string m_lastFile;         // as g_szLastFile was left by this camera's session
    unsigned m_lastFileClears = 0;  // how often g_szLastFile had been emptied then
};

}  // namespace nikon
