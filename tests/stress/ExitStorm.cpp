#include "ExitStorm.h"

#include "Host.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Lumatie.h"
#include "PyCallback.h"
#include "Storm.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kHosts = 4;
constexpr auto kLongestExit = 60s;  // sessions that give signs of life are waited for
constexpr auto kDeadline = 60s;

// Neither joined nor destroyed: the program ends under its threads.
struct World {
    World(const std::string& maker, unsigned number)
        : seed(number), storm(maker == "canon" ? makeCanonStorm() : makeNikonStorm())
    {}

    const unsigned seed;
    const std::unique_ptr<Storm> storm;
    const WorkFolder folder;
    Counts counts;
    Host host{*storm, folder, counts};
    std::atomic<bool> hostsStop{false};
    std::atomic<bool> actsStop{false};
    std::atomic<int> hosts{0};
    std::atomic<int> acting{0};
    std::atomic<Clock::rep> begun{0};  // when the end began
    std::atomic<bool> problem{false};

    void complain(const std::string& text)
    {
        problem = true;
        std::printf("\nhammer: problem at exit %u: %s\n", seed, text.c_str());
        std::fflush(stdout);
    }
};

World* g_world = nullptr;

template <typename Condition>
bool waitFor(const Condition& condition)
{
    const auto end = Clock::now() + kDeadline;
    while (!condition() && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    return condition();
}

// The first of the interpreter's exit functions.
PyObject* noteBegin(PyObject* /*self*/, PyObject* /*unused*/)
{
    g_world->begun = Clock::now().time_since_epoch().count();
    Py_RETURN_NONE;
}

// The last of them: all sessions have ended, so every operation returns. From here on nobody may
// come to the interpreter any more, which would end his thread.
PyObject* awaitHosts(PyObject* /*self*/, PyObject* /*unused*/)
{
    const Clock::duration took = Clock::now().time_since_epoch() - Clock::duration(g_world->begun);
    if (took > kLongestExit) {
        g_world->complain("the end took " + std::to_string(took / 1ms) + " ms");
    }
    g_world->hostsStop = true;
    const PyThreadAllow allow;
    if (!waitFor([] { return g_world->hosts == 0; })) {
        g_world->complain("an operation does not return");
    }
    Py_RETURN_NONE;
}

// When nothing of the interpreter runs any more, the camera tells what was left.
void lookBack()
{
    g_world->actsStop = true;
    if (!waitFor([] { return g_world->acting == 0; })) {
        g_world->complain("the storm does not end");
    }
    for (const std::string& complaint : g_world->storm->complaints(false)) {
        g_world->complain(complaint);
    }
    g_world->folder.remove();
    if (g_world->problem) {
        std::_Exit(1);
    }
}

bool registerExit(PyMethodDef& method)
{
    PyObject* module = PyImport_ImportModule("atexit");
    PyObject* function = PyCFunction_New(&method, nullptr);
    PyObject* result = PyObject_CallMethod(module, "register", "O", function);
    Py_XDECREF(result);
    Py_XDECREF(function);
    Py_XDECREF(module);
    return result != nullptr;
}

// Of the interpreter's exit functions the last one that is registered runs first.
bool registerExits()
{
    static PyMethodDef last = {"awaitHosts", awaitHosts, METH_NOARGS, nullptr};
    static PyMethodDef first = {"noteBegin", noteBegin, METH_NOARGS, nullptr};
    return std::atexit(lookBack) == 0 && registerExit(last) &&
           registerAtInterpreterExit(Lumatie::endAllSessions) && registerExit(first);
}

void beginStorm(World& world)
{
    const auto repeat = [&world](std::atomic<int>& running, const std::atomic<bool>& stop,
                                 unsigned pauseMs, unsigned number, Storm::Act act) {
        ++running;
        std::thread([&running, &stop, pauseMs, seed = world.seed * 100 + number,
                     act = std::move(act)] {
            Random random(seed);
            while (!stop) {
                act(random);
                std::this_thread::sleep_for(std::chrono::milliseconds(random.below(pauseMs)));
            }
            --running;
        }).detach();
    };
    unsigned number = 0;
    for (int i = 0; i < kHosts; ++i) {
        repeat(world.hosts, world.hostsStop, world.storm->pauseMs(), ++number,
               [&world](Random& random) { world.host.operate(random); });
    }
    for (const Storm::Act& act : world.storm->acts()) {
        repeat(world.acting, world.actsStop, 40, ++number, act);
    }
}

}  // namespace

int exitInStorm(const std::string& maker, unsigned seed)
{
    g_world = new World(maker, seed);
    World& world = *g_world;
    Random random(seed * 7919);
    // Not the rounds in which a module's commands complete late: the storm goes on here, and a
    // session's start would follow its events without end.
    world.storm->begin(seed % 5, false);
    world.host.beginRound(seed % 2 == 0 ? Manners::free : Manners::bare);
    if (!registerExits()) {
        return 1;
    }
    const bool isRaised = random.below(3) == 0;
    world.host.raiseExits(isRaised ? 30 : 0);
    const auto length = std::chrono::milliseconds(isRaised ? 3000 : random.below(1500));
    {
        const PyThreadAllow allow;
        world.host.init();
        beginStorm(world);
        std::this_thread::sleep_for(length);
    }
    return Py_FinalizeEx() == 0 ? 0 : 1;
}
