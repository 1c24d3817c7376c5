// Hammers sessions: four threads call tether objects' operations as the wrapper for Python does,
// each with the interpreter lock held, and drop the objects, while a storm of events comes from the
// virtual camera.
//
//     hammer canon|nikon SECONDS
//     hammer canon|nikon exit SEED
//
// The second form is a short storm that the program's end comes into.
//
// It is made for the thread sanitizer, which sees the module, the virtual camera and this program;
// the interpreter, which is embedded here, is not instrumented. The run is cut into rounds. At the
// end of each a session has to work as ever, and camera, host and disk have to agree on the
// pictures. Prints lines that begin with "hammer: "; the exit status is 1 when one tells of a
// problem.
#include "Host.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "ExitStorm.h"
#include "Storm.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kHosts = 4;
constexpr auto kRound = 4s;
constexpr auto kLongestUninit = 10s;  // the bound that hosts are promised
constexpr auto kDeadline = 60s;       // for what has to come true on a loaded machine

constexpr std::array<const char*, kOperations> kNames{"Init", "UpdateExportFolder", "Uninit",
                                                      "Shoot", "SetValue"};

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
        m_host.beginRound(m_isOrderly       ? Manners::orderly
                          : number % 4 == 1 ? Manners::free
                                            : Manners::bare);
        rage(number, length);
        m_host.calmDown();
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
        if (m_host.init() != 1) {
            complain("no session can be started after the storm");
            return;
        }
        expect([this] { return m_storm.isReady(); }, "the session after the storm is not opened");
        const std::size_t before = m_host.paths().size();
        expect([this] { return m_storm.press(); }, "the shutter button does nothing");
        expect([&] { return m_host.paths().size() > before && m_storm.isFetched(); },
               "the picture after the storm does not come");
        m_host.calmDown();
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
        if (silent > m_storm.mostUntold(m_host.sessions())) {
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
    std::printf("\nhammer: sessions started inside the callable %ld, ends there %ld\n",
                counts.startsInCalls.load(), counts.endsInCalls.load());
    std::printf(
        "hammer: tether objects deleted %ld, inside a callable %ld, during Init %ld, "
        "during Uninit %ld\n",
        counts.deleted.load(), counts.deletedInCalls.load(), counts.deletedInStarts.load(),
        counts.deletedInEnds.load());
    std::printf("hammer: acts on the camera %ld, events delivered to the host %ld\n",
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
    const std::string maker = argc >= 3 ? argv[1] : "";
    const bool exits = argc == 4 && std::string_view(argv[2]) == "exit";
    const int number = argc == 3 || exits ? std::atoi(argv[argc - 1]) : 0;
    if ((maker != "canon" && maker != "nikon") || number <= 0) {
        std::fputs("usage: hammer canon|nikon SECONDS | hammer canon|nikon exit SEED\n", stderr);
        return 2;
    }
    Py_InitializeEx(0);
    if (exits) {
        return exitInStorm(maker, static_cast<unsigned>(number));
    }
    PyThreadState* mainThread = PyEval_SaveThread();
    const int result = hammer(maker, std::chrono::seconds(number));
    PyEval_RestoreThread(mainThread);
    return Py_FinalizeEx() == 0 ? result : 1;
}
