// The host in a storm: tether objects that come and go, and their operations as the wrapper for
// Python calls them.
//
// Includes Python.h, so it comes first.
#pragma once

#include "PythonSupport.h"

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Lumatie.h"
#include "Storm.h"

enum Operation { kInit, kUpdateExportFolder, kUninit, kShoot, kSetValue, kOperations };

// What was done and what came of it, in all rounds.
struct Counts {
    std::array<std::atomic<long>, kOperations> operations{};
    std::atomic<long> sessions{0};
    std::atomic<long> events{0};
    std::atomic<long> acts{0};
    std::atomic<long> longestUninitMs{0};
    std::atomic<long> deleted{0};          // tether objects
    std::atomic<long> deletedInCalls{0};   // by a thread that was inside the callable
    std::atomic<long> deletedInStarts{0};  // while another thread was in Init
    std::atomic<long> deletedInEnds{0};    // while another thread was in Uninit
    std::atomic<long> startsInCalls{0};
    std::atomic<long> endsInCalls{0};
    long rounds = 0;
    long made = 0;
    long fetched = 0;
    long announced = 0;
    long unbegun = 0;  // announced pictures that could not even be begun
    long failures = 0;
    long problems = 0;
};

// A folder that goes with everything in it.
class WorkFolder
{
public:
    WorkFolder();
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    ~WorkFolder() { remove(); }

    void remove() const;
    std::string exportFolder(unsigned number) const;
    std::vector<std::filesystem::path> files() const;

private:
    std::filesystem::path m_path;
};

// How the host treats its tether objects in a round.
enum class Manners {
    orderly,  // one session at a time with each camera
    free,     // nobody looks whether there is a session
    bare,     // the same, and objects are deleted while other threads are in their operations
};

// Up to three tether objects. Each is owned by a Python object, whose last reference is dropped by
// whatever thread comes to it, also inside a callable; the next operation makes a new one.
class Host
{
public:
    Host(const Storm& storm, const WorkFolder& folder, Counts& counts);
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host();

    // Nobody else uses the host meanwhile.
    void beginRound(Manners manners);

    // From now on `number` of 1000 events make their callable raise SystemExit.
    void raiseExits(unsigned number) { m_exits = number; }

    // Any operation, in shares that keep sessions alive for a while. Any thread.
    void operate(Random& random);

    // On the first tether object.
    BOOL init() { return init(0); }

    // Deletes all tether objects, and returns when all that they have begun is over. Callables
    // start and end no sessions from now on.
    void calmDown();

    // Whether no thread is in an operation.
    bool isIdle() const { return m_operating == 0; }

    // The rest says what came in this round.

    long sessions() const { return m_sessions; }
    std::vector<std::string> paths() const;
    long failures() const;

private:
    static constexpr unsigned kOwners = 3;

    // Who is in which operation of a tether object. It may outlast that.
    struct Inside {
        std::atomic<int> starts{0};
        std::atomic<int> ends{0};
    };
    struct Owned {
        explicit Owned(Counts& all) : counts(all) {}
        const std::shared_ptr<Inside> inside = std::make_shared<Inside>();  // destroyed last
        Counts& counts;
        Lumatie tether;
    };
    struct Slot {
        PyObject* owner = nullptr;  // guarded by the interpreter lock
        std::mutex turns;           // in an orderly round held while a session starts or ends
        bool isLive = false;        // guarded by `turns`
    };

    static void deleteOwned(PyObject* owner);
    template <typename Call>
    BOOL onTether(unsigned number, const Call& call);
    PyObject* makeHearer();
    BOOL init(unsigned number);
    void uninit(unsigned number);
    std::weak_ptr<Inside> drop(unsigned number);
    static void noteEnd(Counts& counts, std::chrono::steady_clock::time_point begun);
    void operateOnSession(Random& random);
    void changeSessions(Random& random);
    void takeTurn(unsigned number, bool starts, bool drops);
    void dropAndWait(unsigned number);
    void hear(PyObject* arguments);
    void forget();
    void note(const std::string& text);

    const Storm& m_storm;
    const WorkFolder& m_folder;
    Counts& m_counts;
    std::array<Slot, kOwners> m_slots;
    std::atomic<unsigned> m_starts{0};
    std::atomic<Manners> m_manners{Manners::orderly};
    std::atomic<bool> m_isCalm{false};
    std::atomic<int> m_changing{0};  // threads that start or end sessions inside a callable
    std::atomic<int> m_operating{0};
    std::atomic<unsigned> m_exits{0};
    std::atomic<long> m_sessions{0};
    mutable std::mutex m_lock;  // guards the rest
    std::vector<std::string> m_paths;
    long m_failures = 0;
};
