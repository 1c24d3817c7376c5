#include "Host.h"

#include <chrono>
#include <random>
#include <string_view>
#include <thread>

#include "PyCallback.h"
#include "SessionEnds.h"
#include "TetherEvents.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kFolders = 3;
constexpr unsigned kHaste = 6;  // so many times more starts and ends when nobody looks
constexpr long kEventsToAnOperation = 29;
constexpr long kEventsToAStart = 41;

constexpr const char* kNewFile = "{'GENERAL_NEWFILE':r'";
constexpr std::string_view kNewFileEnd = "'}";
constexpr const char* kWriteFailure = "{'GENERAL_WRITEFAIL':1}";

// Counts the calling thread in for a scope.
class Counted
{
public:
    explicit Counted(std::atomic<int>& count) : m_count(count) { ++m_count; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --m_count; }

private:
    std::atomic<int>& m_count;
};

}  // namespace

WorkFolder::WorkFolder()
{
    std::random_device number;
    do {
        m_path = fs::temp_directory_path() / ("lumatie-hammer-" + std::to_string(number()));
    } while (!fs::create_directory(m_path));
    for (int i = 0; i < kFolders; ++i) {
        fs::create_directory(m_path / std::to_string(i));
    }
}

void WorkFolder::remove() const
{
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string WorkFolder::exportFolder(unsigned number) const
{
    return (m_path / std::to_string(number % kFolders)).u8string();
}

std::vector<fs::path> WorkFolder::files() const
{
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(m_path)) {
        if (!entry.is_directory()) {
            found.push_back(entry.path());
        }
    }
    return found;
}

Host::Host(const Storm& storm, const WorkFolder& folder, Counts& counts)
    : m_storm(storm), m_folder(folder), m_counts(counts)
{}

Host::~Host()
{
    calmDown();
}

void Host::beginRound(Manners manners)
{
    m_manners = manners;
    m_isCalm = false;
    m_sessions = 0;
    for (Slot& slot : m_slots) {
        slot.isLive = false;
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    m_paths.clear();
    m_failures = 0;
}

void Host::operate(Random& random)
{
    const unsigned haste = m_manners == Manners::orderly ? 1 : kHaste;
    if (random.below(1000) < m_storm.startsAndEnds() * haste) {
        changeSessions(random);
    } else {
        operateOnSession(random);
    }
}

void Host::calmDown()
{
    m_isCalm = true;
    const auto dropAll = [this] {
        for (unsigned number = 0; number < kOwners; ++number) {
            drop(number);
        }
    };
    // A callable that has not seen the calm yet may start another session.
    do {
        dropAll();
        std::this_thread::sleep_for(1ms);
    } while (m_changing > 0);
    dropAll();
    // What was ended inside callables has still to come to its end.
    SessionEnds::awaitAllPatiently();
}

std::vector<std::string> Host::paths() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_paths;
}

long Host::failures() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_failures;
}

void Host::deleteOwned(PyObject* owner)
{
    auto* const owned = static_cast<Owned*>(PyCapsule_GetPointer(owner, nullptr));
    ++owned->counts.deleted;
    owned->counts.deletedInCalls += PyCallback::isInsideCall();
    owned->counts.deletedInStarts += owned->inside->starts > 0;
    owned->counts.deletedInEnds += owned->inside->ends > 0;
    Counts& counts = owned->counts;
    const auto begun = Clock::now();
    delete owned;
    noteEnd(counts, begun);
}

// Calls an operation as the wrapper does, with a reference to the owner held. A bare call has none:
// when it gives up the interpreter lock, the object may be deleted.
template <typename Call>
BOOL Host::onTether(unsigned number, const Call& call)
{
    const Counted operating(m_operating);
    const InterpreterLock lock;
    PyObject*& kept = m_slots[number].owner;
    if (kept == nullptr) {
        kept = PyCapsule_New(new Owned(m_counts), nullptr, deleteOwned);
    }
    PyObject* owner = kept;
    const bool isBare = m_manners == Manners::bare;
    if (!isBare) {
        Py_INCREF(owner);
    }
    auto& owned = *static_cast<Owned*>(PyCapsule_GetPointer(owner, nullptr));
    const BOOL result = call(owned.tether, std::shared_ptr<Inside>(owned.inside));
    if (!isBare) {
        Py_DECREF(owner);
    }
    return result;
}

// A callable whose own end is noticed, too. Interpreter lock held.
PyObject* Host::makeHearer()
{
    const std::shared_ptr<void> end(nullptr, [this](void*) { forget(); });
    return makeCallable([this, end](PyObject* arguments) { hear(arguments); });
}

BOOL Host::init(unsigned number)
{
    const std::string info = m_storm.sessionInfo(number);
    const std::string folder = m_folder.exportFolder(++m_starts);
    ++m_counts.operations[kInit];
    m_counts.startsInCalls += PyCallback::isInsideCall();
    const BOOL result =
        onTether(number, [&](Lumatie& tether, const std::shared_ptr<Inside>& inside) {
            PyObject* hearer = makeHearer();
            const Counted starting(inside->starts);
            const BOOL started = tether.Init(info.c_str(), folder.c_str(), hearer);
            Py_DECREF(hearer);
            return started;
        });
    m_counts.sessions += result;
    m_sessions += result;
    return result;
}

void Host::uninit(unsigned number)
{
    const auto begun = Clock::now();
    ++m_counts.operations[kUninit];
    onTether(number, [](Lumatie& tether, const std::shared_ptr<Inside>& inside) {
        const Counted ending(inside->ends);
        return tether.Uninit();
    });
    noteEnd(m_counts, begun);
}

// Drops the reference that the host keeps. When it is the last one the object goes. Returns what
// goes with the object.
std::weak_ptr<Host::Inside> Host::drop(unsigned number)
{
    std::weak_ptr<Inside> inside;
    {
        const Counted operating(m_operating);
        const InterpreterLock lock;
        if (PyObject* owner = std::exchange(m_slots[number].owner, nullptr)) {
            inside = static_cast<Owned*>(PyCapsule_GetPointer(owner, nullptr))->inside;
            Py_DECREF(owner);
        }
    }
    return inside;
}

// Another thread may have the last reference, for as long as it is in an operation.
void Host::dropAndWait(unsigned number)
{
    const std::weak_ptr<Inside> inside = drop(number);
    while (!inside.expired()) {
        std::this_thread::sleep_for(1ms);
    }
}

void Host::noteEnd(Counts& counts, Clock::time_point begun)
{
    counts.endsInCalls += PyCallback::isInsideCall();
    const long ms = static_cast<long>((Clock::now() - begun) / 1ms);
    long longest = counts.longestUninitMs;
    while (longest < ms && !counts.longestUninitMs.compare_exchange_weak(longest, ms)) {
    }
}

// Those that hosts call all the time.
void Host::operateOnSession(Random& random)
{
    const unsigned which = random.below(20);
    const unsigned what = random.below(256);
    onTether(random.below(2) * random.below(kOwners),
             [&](Lumatie& tether, const std::shared_ptr<Inside>& /*inside*/) {
                 if (which < 3) {
                     ++m_counts.operations[kUpdateExportFolder];
                     return tether.UpdateExportFolder(m_folder.exportFolder(what).c_str());
                 }
                 if (which < 8) {
                     ++m_counts.operations[kShoot];
                     return tether.Shoot();
                 }
                 ++m_counts.operations[kSetValue];
                 return tether.SetValue(static_cast<int>(what % 16), static_cast<int>(what / 2));
             });
}

// Starts or ends a session of any tether object, mostly of the first one.
void Host::changeSessions(Random& random)
{
    const unsigned which = random.below(6);
    const unsigned owner = random.below(2) * random.below(kOwners);
    if (m_manners == Manners::orderly) {
        takeTurn(owner % m_storm.cameras(), which < 3, which == 5);
    } else if (which < 3) {
        init(owner);
    } else if (which < 5) {
        uninit(owner);
    } else {
        drop(owner);
    }
}

// In an orderly round there is at most one session with each camera. Inside a callable nobody waits
// for his turn: who has it may wait for the callable.
void Host::takeTurn(unsigned number, bool starts, bool drops)
{
    Slot& slot = m_slots[number];
    std::unique_lock<std::mutex> turn(slot.turns, std::defer_lock);
    if (PyCallback::isInsideCall()) {
        if (!turn.try_lock()) {
            return;
        }
    } else {
        turn.lock();
    }
    if (!starts) {
        if (drops && !PyCallback::isInsideCall()) {
            dropAndWait(number);
        } else {
            uninit(number);
        }
        slot.isLive = false;
    } else if (!slot.isLive) {
        slot.isLive = init(number) == 1;
        if (!slot.isLive) {
            uninit(number);
        }
    }
}

// What a callable does with an event; now and then it calls operations itself.
void Host::hear(PyObject* arguments)
{
    const long number = ++m_counts.events;
    Random random(static_cast<unsigned>(number) * 7919);
    if (PyLong_AsLong(PyTuple_GetItem(arguments, 0)) == TETHER_GENERAL) {
        note(PyUnicode_AsUTF8(PyTuple_GetItem(arguments, 1)));
    }
    if (random.below(1000) < m_exits) {
        PyErr_SetNone(PyExc_SystemExit);
        return;
    }
    const Counted changing(m_changing);
    if (number % kEventsToAnOperation == 0) {
        operateOnSession(random);
    } else if (number % kEventsToAStart == 0 && !m_isCalm) {
        changeSessions(random);
    }
}

// A callable goes, in the middle of an operation or of a callable; a host's object may end sessions
// then. A bare operation does not expect that its object goes before it has done its work.
void Host::forget()
{
    const Counted changing(m_changing);
    Random random(m_starts * 31);
    if (m_manners == Manners::free && !m_isCalm && random.below(4) == 0) {
        uninit(random.below(kOwners));
    }
}

void Host::note(const std::string& text)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (text.rfind(kNewFile, 0) == 0) {
        const std::size_t start = std::string(kNewFile).size();
        m_paths.push_back(text.substr(start, text.size() - start - kNewFileEnd.size()));
    } else if (text == kWriteFailure) {
        ++m_failures;
    }
}
