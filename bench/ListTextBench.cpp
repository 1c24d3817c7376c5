// The list texts of 128 entries that both makers' reports send, beside writing the same bytes once
// into a buffer that has room for them.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "EdSdkCodes.h"
#include "PyCallback.h"
#include "TetherEvents.h"
#include "canon/CameraModel.h"
#include "canon/CanonReporting.h"
#include "canon/CanonTables.h"
#include "canon/Observable.h"

namespace {

constexpr std::size_t kEntries = 128;

struct Entry {
    std::uint32_t key;
    const char* text;
};

// Canon's shutter speeds, over and over: a list has as many entries as the interface allows.
std::vector<Entry> canonEntries()
{
    std::vector<Entry> entries;
    while (entries.size() < kEntries) {
        for (const auto& [code, text] : canon::canonTables().m_mapTv) {
            if (entries.size() < kEntries) {
                entries.push_back({code, text});
            }
        }
    }
    return entries;
}

// The same texts by their position.
std::vector<Entry> nikonEntries()
{
    std::vector<Entry> entries = canonEntries();
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entries[i].key = static_cast<std::uint32_t>(i + 1);
    }
    return entries;
}

std::string canonText(const std::vector<Entry>& entries)
{
    ListText list;
    for (const Entry& entry : entries) {
        list.add(entry.key, entry.text);
    }
    return list.text();
}

std::string nikonText(const std::vector<Entry>& entries)
{
    ListText list;
    for (const Entry& entry : entries) {
        list.add(entry.key, entry.text);
    }
    list.addFlag(TETHER_NIKON_EDITABLE, true);
    return list.text();
}

// Writes behind one another into a buffer that is large enough.
class Writer
{
public:
    explicit Writer(std::vector<char>& buffer)
        : m_next(buffer.data()), m_end(buffer.data() + buffer.size())
    {}

    void put(const char* text, std::size_t size)
    {
        std::memcpy(m_next, text, size);
        m_next += size;
    }
    void put(std::uint32_t number) { m_next = std::to_chars(m_next, m_end, number).ptr; }
    const char* next() const { return m_next; }

private:
    char* m_next;
    char* m_end;
};

std::size_t write(std::vector<char>& buffer, const std::vector<Entry>& entries, bool withFlag)
{
    Writer out(buffer);
    out.put("{", 1);
    for (const Entry& entry : entries) {
        out.put(entry.key);
        out.put(":'", 2);
        out.put(entry.text, std::strlen(entry.text));
        out.put("',", 2);
    }
    if (withFlag) {
        out.put("'NIKON_EDITABLE':1,", 19);
    }
    out.put("}", 1);
    return static_cast<std::size_t>(out.next() - buffer.data());
}

void runFloor(benchmark::State& state, const std::vector<Entry>& entries, bool withFlag,
              const std::string& expected)
{
    std::vector<char> buffer(expected.size() + 16);
    std::size_t size = 0;
    for (auto unused : state) {
        static_cast<void>(unused);
        size = write(buffer, entries, withFlag);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
    if (std::string(buffer.data(), size) != expected) {
        state.SkipWithError("the floor writes another text");
    }
}

void canonList(benchmark::State& state)
{
    const std::vector<Entry> entries = canonEntries();
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(canonText(entries));
    }
}

void canonFloor(benchmark::State& state)
{
    const std::vector<Entry> entries = canonEntries();
    runFloor(state, entries, false, canonText(entries));
}

void nikonList(benchmark::State& state)
{
    const std::vector<Entry> entries = nikonEntries();
    for (auto unused : state) {
        static_cast<void>(unused);
        benchmark::DoNotOptimize(nikonText(entries));
    }
}

void nikonFloor(benchmark::State& state)
{
    const std::vector<Entry> entries = nikonEntries();
    runFloor(state, entries, true, nikonText(entries));
}

// From the model's notification on: the codes' texts are looked up, and the event is handed over to
// a callback that nobody listens to.
void canonReport(benchmark::State& state)
{
    canon::CameraModel model(nullptr);
    const std::vector<Entry> entries = canonEntries();
    for (std::size_t i = 0; i < kEntries; ++i) {
        model.TvDesc.propDesc[i] = static_cast<std::int32_t>(entries[i].key);
    }
    model.TvDesc.numElements = static_cast<std::int32_t>(kEntries);
    PyCallback callback;
    std::uint32_t property = canon::kPropTv;
    const canon::CameraEvent event{"PropertyDescChanged", &property};
    for (auto unused : state) {
        static_cast<void>(unused);
        canon::reportToHost(callback, model, event);
    }
}

}  // namespace

BENCHMARK(canonList)->Name("list_canon/module");
BENCHMARK(canonFloor)->Name("list_canon/floor");
BENCHMARK(nikonList)->Name("list_nikon/module");
BENCHMARK(nikonFloor)->Name("list_nikon/floor");
BENCHMARK(canonReport)->Name("report_canon/module");
BENCHMARK(canonFloor)->Name("report_canon/floor");
