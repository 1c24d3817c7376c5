// Hammers a session: four threads call the tether object's operations as the wrapper for Python
// does, each with the interpreter lock held, while a storm of events comes from the virtual camera.
//
//     hammer canon|nikon SECONDS
//
// It is made for the thread sanitizer, which sees the module, the virtual camera and this program;
// the interpreter, which is embedded here, is not instrumented. The run is cut into rounds. At the
// end of each a session has to work as ever, and camera, host and disk have to agree on the
// pictures. Prints lines that begin with "hammer: "; the exit status is 1 when one tells of a
// problem.
#include "PythonSupport.h"

#include "Lumatie.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string_view>
#include <thread>

#include "Storm.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kHosts = 4;
constexpr int kFolders = 3;
constexpr auto kRound = 4s;
constexpr auto kLongestUninit = 10s;  // the bound that hosts are promised
constexpr auto kDeadline = 60s;       // for what has to come true on a loaded machine

constexpr const char* kNewFile = "{'GENERAL_NEWFILE':r'";
constexpr std::string_view kNewFileEnd = "'}";
constexpr const char* kWriteFailure = "{'GENERAL_WRITEFAIL':1}";

enum Operation { kInit, kUpdateExportFolder, kUninit, kShoot, kSetValue, kOperations };
constexpr std::array<const char*, kOperations> kNames{"Init", "UpdateExportFolder", "Uninit",
                                                      "Shoot", "SetValue"};

// What was done and what came of it, in all rounds.
struct Counts {
    std::array<std::atomic<long>, kOperations> operations{};
    std::atomic<long> sessions{0};
    std::atomic<long> events{0};
    std::atomic<long> acts{0};
    std::atomic<long> longestUninitMs{0};
    long rounds = 0;
    long made = 0;
    long fetched = 0;
    long announced = 0;
    long unbegun = 0;  // announced pictures that could not even be begun
    long failures = 0;
    long problems = 0;
};

template <typename Condition>
bool waitFor(Condition condition)
{
    const auto end = Clock::now() + kDeadline;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

std::string readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A folder that goes with everything in it.
class WorkFolder
{
public:
    WorkFolder()
    {
        std::random_device number;
        do {
            m_path = fs::temp_directory_path() / ("lumatie-hammer-" + std::to_string(number()));
        } while (!fs::create_directory(m_path));
        for (int i = 0; i < kFolders; ++i) {
            fs::create_directory(m_path / std::to_string(i));
        }
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    ~WorkFolder()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }

    std::string exportFolder(unsigned number) const
    {
        return (m_path / std::to_string(number % kFolders)).u8string();
    }

    std::vector<fs::path> files() const
    {
        std::vector<fs::path> found;
        for (const auto& entry : fs::recursive_directory_iterator(m_path)) {
            if (!entry.is_directory()) {
                found.push_back(entry.path());
            }
        }
        return found;
    }

private:
    fs::path m_path;
};

// The host: a tether object, its callable, and the operations as the wrapper calls them.
class Host
{
public:
    Host(const Storm& storm, const WorkFolder& folder, Counts& counts)
        : m_info(storm.sessionInfo()),
          m_startsAndEnds(storm.startsAndEnds()),
          m_folder(folder),
          m_counts(counts)
    {
        const InterpreterLock lock;
        m_tether = std::make_unique<Lumatie>();
        m_callable = makeCallable([this](PyObject* arguments) { hear(arguments); });
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host()
    {
        const InterpreterLock lock;
        m_tether.reset();
        Py_DECREF(m_callable);
    }

    // Any operation, in shares that keep sessions alive for a while.
    void operate(Random& random)
    {
        if (random.below(1000) < m_startsAndEnds) {
            // More starts than ends, so that some rounds have several sessions.
            if (random.below(5) < 3) {
                startSession();
            } else {
                endSession();
            }
        } else {
            const InterpreterLock lock;
            operateOnSession(random.below(20), random.below(256));
        }
    }

    // Those that hosts call all the time. Interpreter lock held.
    void operateOnSession(unsigned which, unsigned what)
    {
        if (which < 3) {
            ++m_counts.operations[kUpdateExportFolder];
            m_tether->UpdateExportFolder(m_folder.exportFolder(what).c_str());
        } else if (which < 8) {
            ++m_counts.operations[kShoot];
            m_tether->Shoot();
        } else {
            ++m_counts.operations[kSetValue];
            m_tether->SetValue(static_cast<int>(what % 16), static_cast<int>(what / 2));
        }
    }

    // In an orderly round the host has one session at a time, else nobody looks.
    void startSession()
    {
        if (!m_isOrderly) {
            init();
            return;
        }
        const std::lock_guard<std::mutex> guard(m_turns);
        if (!m_isLive) {
            m_isLive = init() == 1;
        }
        if (!m_isLive) {
            uninit();
        }
    }

    void endSession()
    {
        if (!m_isOrderly) {
            uninit();
            return;
        }
        const std::lock_guard<std::mutex> guard(m_turns);
        if (m_isLive) {
            uninit();
            m_isLive = false;
        }
    }

    BOOL init()
    {
        const InterpreterLock lock;
        ++m_counts.operations[kInit];
        const BOOL result =
            m_tether->Init(m_info.c_str(), m_folder.exportFolder(++m_starts).c_str(), m_callable);
        m_counts.sessions += result;
        m_sessions += result;
        return result;
    }

    void uninit()
    {
        const auto begun = Clock::now();
        {
            const InterpreterLock lock;
            ++m_counts.operations[kUninit];
            m_tether->Uninit();
        }
        const long ms = static_cast<long>((Clock::now() - begun) / 1ms);
        long longest = m_counts.longestUninitMs;
        while (longest < ms && !m_counts.longestUninitMs.compare_exchange_weak(longest, ms)) {
        }
    }

    void beginRound(bool isOrderly)
    {
        m_isOrderly = isOrderly;
        m_isLive = false;
        m_sessions = 0;
        const std::lock_guard<std::mutex> guard(m_lock);
        m_paths.clear();
        m_failures = 0;
    }

    // The callable does not end the session from now on.
    void calmDown() { m_isOrderly = true; }

    // The rest says what came in this round.

    long sessions() const { return m_sessions; }

    std::vector<std::string> paths() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_paths;
    }

    long failures() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_failures;
    }

private:
    // What the callable does; it calls operations itself now and then.
    void hear(PyObject* arguments)
    {
        const long number = ++m_counts.events;
        if (PyLong_AsLong(PyTuple_GetItem(arguments, 0)) == TETHER_GENERAL) {
            note(PyUnicode_AsUTF8(PyTuple_GetItem(arguments, 1)));
        }
        if (number % 29 == 0) {
            operateOnSession(static_cast<unsigned>(number / 29 % 20), 5);
        } else if (number % 2003 == 0 && !m_isOrderly) {
            ++m_counts.operations[kUninit];
            m_tether->Uninit();
        }
    }

    void note(const std::string& text)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (text.rfind(kNewFile, 0) == 0) {
            const std::size_t start = std::string(kNewFile).size();
            m_paths.push_back(text.substr(start, text.size() - start - kNewFileEnd.size()));
        } else if (text == kWriteFailure) {
            ++m_failures;
        }
    }

    const std::string m_info;
    const unsigned m_startsAndEnds;
    const WorkFolder& m_folder;
    Counts& m_counts;
    std::unique_ptr<Lumatie> m_tether;
    PyObject* m_callable = nullptr;
    std::atomic<unsigned> m_starts{0};
    std::atomic<bool> m_isOrderly{true};
    std::atomic<long> m_sessions{0};
    std::mutex m_turns;  // guards m_isLive; held while a session starts or ends
    bool m_isLive = false;
    mutable std::mutex m_lock;  // guards the rest
    std::vector<std::string> m_paths;
    long m_failures = 0;
};

// A round: the storm, a session after it that has to work, and the checks.
class Round
{
public:
    Round(Storm& storm, Host& host, const WorkFolder& folder, Counts& counts)
        : m_storm(storm), m_host(host), m_folder(folder), m_counts(counts)
    {}

    void run(Clock::duration length)
    {
        const auto number = static_cast<unsigned>(m_counts.rounds++);
        m_isOrderly = number % 2 == 0;
        m_storm.begin(number, m_isOrderly);
        m_host.beginRound(m_isOrderly);
        m_host.startSession();
        rage(number, length);
        m_host.uninit();
        workAsEver();
        check();
    }

private:
    void rage(unsigned number, Clock::duration length)
    {
        const auto end = Clock::now() + length;
        std::vector<std::thread> threads;
        const auto repeat = [&](unsigned pauseMs, Storm::Act act) {
            const auto seed = number * 100 + static_cast<unsigned>(threads.size());
            threads.emplace_back([end, pauseMs, seed, act = std::move(act)] {
                Random random(seed);
                while (Clock::now() < end) {
                    act(random);
                    std::this_thread::sleep_for(std::chrono::milliseconds(random.below(pauseMs)));
                }
            });
        };
        for (int i = 0; i < kHosts; ++i) {
            repeat(m_storm.pauseMs(), [this](Random& random) { m_host.operate(random); });
        }
        for (const Storm::Act& act : m_storm.acts()) {
            repeat(40, [this, act](Random& random) {
                act(random);
                ++m_counts.acts;
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    // A session brings a picture to the host, whatever went before it.
    void workAsEver()
    {
        m_storm.calmDown();
        m_host.calmDown();
        if (m_host.init() != 1) {
            complain("no session can be started after the storm");
            return;
        }
        expect([this] { return m_storm.isReady(); }, "the session after the storm is not opened");
        const std::size_t before = m_host.paths().size();
        expect([this] { return m_storm.press(); }, "the shutter button does nothing");
        expect([&] { return m_host.paths().size() > before && m_storm.isFetched(); },
               "the picture after the storm does not come");
        m_host.uninit();
    }

    // Camera, host and disk agree.
    void check()
    {
        std::map<std::string, std::int64_t> fetched;
        for (const StormPicture& picture : m_storm.pictures()) {
            fetched[picture.bytes] += picture.fetched;
            ++m_counts.made;
            m_counts.fetched += static_cast<long>(picture.fetched);
        }
        const std::vector<std::string> announced = m_host.paths();
        std::set<std::string> unseen(announced.begin(), announced.end());
        m_counts.failures += m_host.failures();
        long silent = 0;
        for (const fs::path& file : m_folder.files()) {
            const auto found = fetched.find(readFile(file));
            if (found == fetched.end() || found->second-- == 0) {
                complain("not whole, or twice: " + file.u8string());
            }
            const bool wasAnnounced = unseen.erase(file.u8string()) != 0;
            ++(wasAnnounced ? m_counts.announced : silent);
            fs::remove(file);
        }
        for (const auto& [bytes, left] : fetched) {
            if (left > 0) {
                complain("fetched, but not on disk: " + std::to_string(left));
            }
        }
        for (const std::string& path : unseen) {
            if (m_storm.isOfNoPicture(fs::u8path(path).filename().u8string())) {
                ++m_counts.unbegun;
            } else {
                complain("announced, but not there: " + path);
            }
        }
        // The end of a session lets the picture that is under way come whole, but tells nobody.
        if (silent > m_host.sessions()) {
            complain(std::to_string(silent) + " pictures were announced to nobody");
        }
        for (const std::string& complaint : m_storm.complaints(m_isOrderly)) {
            complain(complaint);
        }
        if (m_counts.longestUninitMs > kLongestUninit / 1ms) {
            complain("Uninit took " + std::to_string(m_counts.longestUninitMs) + " ms");
        }
    }

    template <typename Condition>
    void expect(Condition condition, const char* otherwise)
    {
        if (!waitFor(condition)) {
            complain(otherwise);
        }
    }

    void complain(const std::string& text)
    {
        ++m_counts.problems;
        std::printf("\nhammer: problem in round %ld: %s\n", m_counts.rounds, text.c_str());
        std::fflush(stdout);
    }

    Storm& m_storm;
    Host& m_host;
    const WorkFolder& m_folder;
    Counts& m_counts;
    bool m_isOrderly = true;
};

void show(const std::string& maker, double seconds, const Counts& counts)
{
    std::printf("\nhammer: %s, %.0f s, %ld rounds, %ld sessions\n", maker.c_str(), seconds,
                counts.rounds, counts.sessions.load());
    std::printf("hammer: operations:");
    for (std::size_t i = 0; i < kOperations; ++i) {
        std::printf(" %s %ld", kNames[i], counts.operations[i].load());
    }
    std::printf("\nhammer: acts on the camera %ld, events delivered to the host %ld\n",
                counts.acts.load(), counts.events.load());
    std::printf("hammer: pictures made %ld, fetched %ld, announced %ld, failures announced %ld\n",
                counts.made, counts.fetched, counts.announced, counts.failures);
    std::printf("hammer: announced, but not even begun %ld\n", counts.unbegun);
    std::printf("hammer: longest Uninit %ld ms\n", counts.longestUninitMs.load());
    std::printf("hammer: problems %ld\n", counts.problems);
    std::fflush(stdout);
}

int hammer(const std::string& maker, std::chrono::seconds seconds)
{
    const std::unique_ptr<Storm> storm = maker == "canon" ? makeCanonStorm() : makeNikonStorm();
    const WorkFolder folder;
    Counts counts;
    const auto begun = Clock::now();
    {
        Host host(*storm, folder, counts);
        Round round(*storm, host, folder, counts);
        for (auto left = Clock::duration(seconds); left > 0s && counts.problems == 0;
             left = begun + seconds - Clock::now()) {
            round.run(std::min<Clock::duration>(kRound, left));
        }
    }
    show(maker, std::chrono::duration<double>(Clock::now() - begun).count(), counts);
    return counts.problems == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string maker = argc == 3 ? argv[1] : "";
    const int seconds = argc == 3 ? std::atoi(argv[2]) : 0;
    if ((maker != "canon" && maker != "nikon") || seconds <= 0) {
        std::fputs("usage: hammer canon|nikon SECONDS\n", stderr);
        return 2;
    }
    Py_InitializeEx(0);
    PyThreadState* mainThread = PyEval_SaveThread();
    const int result = hammer(maker, std::chrono::seconds(seconds));
    PyEval_RestoreThread(mainThread);
    return Py_FinalizeEx() == 0 ? result : 1;
}
