#include "nikon/Acquisition.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Memory.h"
#include "TetherEvents.h"
#include "TetherTexts.h"
#include "Text.h"
#include "nikon/Console.h"
#include "nikon/MaidCommands.h"
#include "platform/Platform.h"

namespace nikon {

namespace {

// The item's Data object that holds the image.
constexpr auto kImageObjectId = static_cast<std::int32_t>(kMaidItemImage);

// A raw file and a JPEG.
constexpr std::size_t kMostOfAnExposure = 2;

// Takes the ids that are not in `listed` out of `ids`.
void keepOnly(std::set<std::uint32_t>& ids, const std::set<std::uint32_t>& listed)
{
    for (auto id = ids.begin(); id != ids.end();) {
        id = listed.count(*id) > 0 ? std::next(id) : ids.erase(id);
    }
}

}  // namespace

void WrittenItems::begin(std::uint32_t id)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_current = id;
    m_currentIsGone = false;
}

void WrittenItems::add()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (!m_currentIsGone) {
        m_ids.insert(m_current);
    }
}

bool WrittenItems::remove(std::uint32_t id)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_currentIsGone = m_currentIsGone || id == m_current;
    return m_ids.erase(id) > 0;
}

bool WrittenItems::contains(std::uint32_t id) const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_ids.count(id) > 0;
}

void WrittenItems::keepOnly(const std::set<std::uint32_t>& listed)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    nikon::keepOnly(m_ids, listed);
}

Acquisition::Acquisition(std::shared_ptr<MaidTree> tree, Announce announce,
                         std::function<bool()> goesOn)
    : m_tree(std::move(tree)), m_announce(std::move(announce)), m_goesOn(std::move(goesOn))
{
    m_tree->observeItems([written = m_written](std::int32_t id) {
        return written->remove(static_cast<std::uint32_t>(id));
    });
}

int Acquisition::AcquireNewItems()
{
    m_handled.clear();
    while (m_goesOn()) {
        const MaidObjectPtr source = m_tree->source();
        if (!source) {
            return 0;
        }
        const std::optional<std::uint32_t> id = nextItemId(source);
        if (!id || *id == 0) {
            return 0;
        }
        m_handled.insert(*id);
        m_putOff.erase(*id);
        if (acquireItem(source, static_cast<std::int32_t>(*id)) == Outcome::failed) {
            m_putOff.insert(*id);
            return 0;
        }
    }
    return 0;
}

// The first listed item that is still to be handled; those that ended an earlier pass come last.
std::optional<std::uint32_t> Acquisition::nextItemId(const MaidObjectPtr& source)
{
    std::optional<std::vector<std::uint32_t>> ids = m_tree->ChildIds(source);
    if (!ids) {
        return std::nullopt;
    }
    if (ids->empty()) {
        Console::puts("There is no item.\n");
    }
    m_listed = std::set<std::uint32_t>(ids->begin(), ids->end());
    m_written->keepOnly(m_listed);
    keepOnly(m_putOff, m_listed);
    keepToExposure(*ids);

    std::optional<std::uint32_t> last;
    for (const std::uint32_t id : *ids) {
        if (m_handled.count(id) > 0 || m_written->contains(id)) {
            continue;
        }
        if (m_putOff.count(id) == 0) {
            return id;
        }
        last = last ? last : id;
    }
    return last;
}

void Acquisition::beginExposure()
{
    m_ofExposure.clear();
    m_before = m_listed;
    const std::vector<std::uint32_t> announced = m_tree->OpenChildIds(m_tree->source());
    m_before.insert(announced.begin(), announced.end());
}

// The first list with something new tells what the exposure has brought. What comes later is not of
// it, and neither is more than a camera makes in one: after a list that could not be read, or a
// wait in which the camera told of much, many look new.
void Acquisition::keepToExposure(std::vector<std::uint32_t>& ids)
{
    if (m_ofExposure.empty()) {
        for (const std::uint32_t id : ids) {
            if (m_before.count(id) == 0 && m_ofExposure.size() < kMostOfAnExposure) {
                m_ofExposure.insert(id);
            }
        }
    }
    if (m_onlyExposure) {
        const auto isOther = [this](std::uint32_t id) { return m_ofExposure.count(id) == 0; };
        ids.erase(std::remove_if(ids.begin(), ids.end(), isOther), ids.end());
    }
}

Acquisition::Outcome Acquisition::acquireItem(const MaidObjectPtr& source, std::int32_t id)
{
    const MaidObjectPtr item = findOrOpen(source, id, "Item");
    if (!item) {
        return Outcome::failed;
    }
    const std::optional<std::uint32_t> type = GetItemDataTypes(item);
    if (!type) {
        return Outcome::failed;
    }
    if (*type != kMaidItemImage) {
        return Outcome::passedOver;
    }
    const MaidObjectPtr data = findOrOpen(item, kImageObjectId, "Image");
    if (!data) {
        return Outcome::failed;
    }
    const auto receiver = std::make_shared<DataReceiver>(id, m_tree->driver().heartbeat());
    m_written->begin(static_cast<std::uint32_t>(id));
    AcquireData(data, receiver);
    const std::vector<std::string> results = receiver->results();
    const bool written = std::any_of(results.begin(), results.end(), [](const std::string& result) {
        return result != kLastFileError;
    });
    if (written) {
        m_written->add();
    }
    if (receiver->mayRemoveItem()) {
        m_tree->CloseChild(source, id);
    }
    report(results);
    return Outcome::handled;
}

MaidObjectPtr Acquisition::findOrOpen(const MaidObjectPtr& parent, std::int32_t id,
                                      const char* name)
{
    if (MaidObjectPtr open = m_tree->FindChild(parent, id)) {
        m_tree->describeAgain(open);
        return open;
    }
    MaidObjectPtr child = m_tree->OpenChild(parent, id);
    const std::string text =
        std::string(name) + (child ? " object is opened.\n" : " object can't be opened.\n");
    Console::puts(text.c_str());
    return child;
}

std::optional<std::uint32_t> Acquisition::GetItemDataTypes(const MaidObjectPtr& item)
{
    MaidDriver& driver = m_tree->driver();
    if (!FindCapability(driver, item, kMaidCapDataTypes, kMaidOperationGet)) {
        return std::nullopt;
    }
    const std::optional<std::uint32_t> types = GetUnsigned(driver, item, kMaidCapDataTypes, 0);
    if (!types) {
        return std::nullopt;
    }
    std::uint32_t first = 0;
    int number = 0;
    const auto list = [&](std::uint32_t type, const char* format) {
        if ((*types & type) != 0) {
            Console::print(format, ++number);
            first = first == 0 ? type : first;
        }
    };
    list(kMaidItemImage, "%d. Image\n");
    list(kMaidItemMovie, "%d. Movie\n");
    list(kMaidItemThumbnail, "%d. Thumbnail\n");
    return first;
}

bool Acquisition::AcquireData(const MaidObjectPtr& data,
                              const std::shared_ptr<DataReceiver>& receiver)
{
    MaidDriver& driver = m_tree->driver();
    if (!FindCapability(driver, data, kMaidCapDataProc, kMaidOperationSet)) {
        return false;
    }
    MaidReference handle = receivers().add(receiver);
    const auto procedure = reinterpret_cast<void (*)()>(receiveData);
    bool done = false;
    try {
        // After a start that is refused the procedure stays; it finds no receiver any more.
        done = SetProcedure(driver, data, kMaidCapDataProc, procedure, handle) &&
               StartCapability(driver, data, kMaidCapAcquire) &&
               SetProcedure(driver, data, kMaidCapDataProc, nullptr, nullptr);
    } catch (const std::bad_alloc&) {
        receivers().remove(handle);
        doOrGiveUp("taking a procedure back",
                   [&] { SetProcedure(driver, data, kMaidCapDataProc, nullptr, nullptr); });
        throw;
    }
    receivers().remove(handle);
    return done;
}

// Tells of every picture that came. When none did, the one before is told of once more, if its file
// is still there.
void Acquisition::report(const std::vector<std::string>& results)
{
    if (results.empty()) {
        announcePicture(previousFile());
        return;
    }
    remember(results.back());
    std::all_of(results.begin(), results.end(),
                [&](const std::string& result) { return announcePicture(result); });
}

bool Acquisition::announcePicture(const std::string& lastFile)
{
    if (equalIgnoringCase(lastFile, kLastFileError) || platform::namesFile(lastFile.c_str())) {
        return m_announce(pictureText(lastFile));
    }
    return true;
}

void Acquisition::remember(const std::string& lastFile)
{
    m_lastFile = lastFile;
    m_lastFileClears = g_szLastFile.clears();
}

// Empty when the host has emptied the text since.
std::string Acquisition::previousFile() const
{
    return m_lastFileClears == g_szLastFile.clears() ? m_lastFile : std::string();
}

}  // namespace nikon
