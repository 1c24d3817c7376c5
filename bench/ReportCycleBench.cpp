// One cycle of reports of a Nikon session, beside the entry point's share of it: the same commands,
// issued again.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Maid.h"
#include "PromptModule.h"
#include "nikon/MaidDriver.h"
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

// The entry point that commands are written down for, and those that were.
struct Recording {
    struct Call {
        MaidObject* object;
        std::uint32_t command;
        std::uint32_t parameter;
        std::uint32_t dataType;
    };

    MaidEntryPoint module = nullptr;
    bool isOn = false;
    std::vector<Call> calls;
};

Recording g_recording;

MaidResult MAIDAPI writeDown(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                             std::uint32_t dataType, MaidData data,
                             MaidCompletionProcedure completion, MaidReference reference)
{
    if (g_recording.isOn) {
        g_recording.calls.push_back({object, command, parameter, dataType});
    }
    return g_recording.module(object, command, parameter, dataType, data, completion, reference);
}

void MAIDAPI noteCompletion(MaidObject* /*object*/, std::uint32_t /*command*/,
                            std::uint32_t /*parameter*/, std::uint32_t /*dataType*/,
                            MaidData /*data*/, MaidReference reference, MaidResult result)
{
    *static_cast<MaidResult*>(reference) = result;
}

// Issues what was written down, with data of its own: nothing but the calls. Returns whether each
// was done.
bool replay()
{
    static std::vector<unsigned char> room(std::size_t{64} * 1024);  // for any array that is read
    std::uint32_t number = 0;
    MaidEnum record = {};
    bool good = true;
    for (const Recording::Call& call : g_recording.calls) {
        // An array is read into the record that was read just before.
        record.array = room.data();
        const auto data = call.dataType == kMaidDataTypeUnsignedPtr
                              ? reinterpret_cast<MaidData>(&number)
                              : reinterpret_cast<MaidData>(&record);
        MaidResult completed = -1;
        const MaidResult result = writeDown(call.object, call.command, call.parameter,
                                            call.dataType, data, noteCompletion, &completed);
        good = good && result == kMaidOk && completed == kMaidOk;
    }
    return good;
}

constexpr int kEventsOfACycle = 10;  // two texts, four values, four lists

void run(benchmark::State& state, MaidEntryPoint module, bool replayed)
{
    g_recording = {module, false, {}};
    const auto tree =
        std::make_shared<nikon::MaidTree>(std::make_shared<nikon::MaidLibrary>(writeDown));
    Counter counter;
    nikon::NikonReporting reporting(tree, counter);
    if (!tree->OpenModule() || !tree->OpenSource()) {
        state.SkipWithError("the camera cannot be opened");
        return;
    }
    g_recording.isOn = true;
    bool good = reporting.ReportNikonProperties() == 1 && counter.events == kEventsOfACycle;
    g_recording.isOn = false;
    for (auto unused : state) {
        static_cast<void>(unused);
        good = (replayed ? replay() : reporting.ReportNikonProperties() == 1) && good;
    }
    state.counters["calls"] = static_cast<double>(g_recording.calls.size());
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
