// One cycle of reports of a Nikon session, beside the entry point's share of it: the same commands,
// issued again.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "PromptModule.h"
#include "Replay.h"
#include "nikon/MaidTree.h"
#include "nikon/NikonReporting.h"
#include "platform/Platform.h"

namespace {

// Where the session would hand the events to the host.
class Counter final : public nikon::ReportReceiver
{
public:
    bool send(TetherType /*type*/, const std::string& text) override
    {
        benchmark::DoNotOptimize(text.data());
        ++events;
        return true;
    }
    bool send(TetherType /*type*/, int value) override
    {
        benchmark::DoNotOptimize(value);
        ++events;
        return true;
    }
    bool isWanted() override { return true; }

    int events = 0;
};

constexpr int kEventsOfACycle = 10;  // two texts, four values, four lists

void run(benchmark::State& state, MaidEntryPoint module, bool replayed)
{
    bench::Replay replay(module);
    const auto tree = std::make_shared<nikon::MaidTree>(replay.library());
    Counter counter;
    nikon::NikonReporting reporting(tree, counter);
    if (!tree->OpenModule() || !tree->OpenSource()) {
        state.SkipWithError("the camera cannot be opened");
        return;
    }
    replay.record(true);
    bool good = reporting.ReportNikonProperties() == 1 && counter.events == kEventsOfACycle;
    replay.record(false);
    for (auto unused : state) {
        static_cast<void>(unused);
        good = (replayed ? replay.run() : reporting.ReportNikonProperties() == 1) && good;
    }
    state.counters["calls"] = static_cast<double>(replay.size());
    if (!good || !tree->CloseTree()) {
        state.SkipWithError("a cycle failed");
    }
}

void runPrompt(benchmark::State& state, bool replayed)
{
    bench::PromptModule module;
    run(state, bench::PromptModule::enter, replayed);
}

// The virtual camera's module, with its settings as they come: it completes inside each command.
void runVirtual(benchmark::State& state, bool replayed)
{
    std::string reason;
    const auto library = platform::Library::load(LUMATIE_NIKON_MODULE, reason);
    if (!library) {
        state.SkipWithError(reason.c_str());
        return;
    }
    run(state, reinterpret_cast<MaidEntryPoint>(library->function(kMaidEntryPointName)), replayed);
}

void cycle(benchmark::State& state)
{
    runPrompt(state, false);
}
void cycleFloor(benchmark::State& state)
{
    runPrompt(state, true);
}
void cycleOfVirtual(benchmark::State& state)
{
    runVirtual(state, false);
}
void cycleOfVirtualFloor(benchmark::State& state)
{
    runVirtual(state, true);
}

}  // namespace

BENCHMARK(cycle)->Name("cycle_prompt/module");
BENCHMARK(cycleFloor)->Name("cycle_prompt/floor");
BENCHMARK(cycleOfVirtual)->Name("cycle_virtual/module");
BENCHMARK(cycleOfVirtualFloor)->Name("cycle_virtual/floor");
