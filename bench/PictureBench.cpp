// A Nikon picture of 60 MB from its first part to its event, beside one copy of it in memory and
// one file written from that. Both go into the working directory.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "PromptModule.h"
#include "TetherTexts.h"
#include "nikon/Acquisition.h"
#include "nikon/MaidTree.h"

namespace {

using Clock = bench::PromptModule::Clock;

constexpr std::size_t kSize = 60'000'000;

// Nothing that a disk could write more quickly than anything else.
std::string picture()
{
    std::string bytes(kSize, '\0');
    std::uint32_t number = 1;
    for (char& byte : bytes) {
        number = number * 1664525U + 1013904223U;
        byte = static_cast<char>(number >> 24U);
    }
    return bytes;
}

const std::string& content()
{
    static const std::string bytes = picture();
    return bytes;
}

double seconds(Clock::duration time)
{
    return std::chrono::duration<double>(time).count();
}

bool holdsPicture(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes(kSize + 1, '\0');
    file.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    return file.gcount() == static_cast<std::streamsize>(kSize) &&
           std::memcmp(bytes.data(), content().data(), kSize) == 0;
}

// The path in a new-picture text, empty for another text.
std::string pathIn(const std::string& text)
{
    const std::string start = "{'GENERAL_NEWFILE':r'";
    const std::string end = "'}";
    return text.compare(0, start.size(), start) == 0
               ? text.substr(start.size(), text.size() - start.size() - end.size())
               : std::string();
}

void acquire(benchmark::State& state)
{
    g_szExportFolder.set(".");
    bench::PromptModule module(content());
    const auto library = std::make_shared<nikon::MaidLibrary>(bench::PromptModule::enter);
    const auto tree = std::make_shared<nikon::MaidTree>(library);
    Clock::time_point announced;
    std::string path;
    nikon::Acquisition acquisition(
        tree,
        [&](const std::string& text) {
            announced = Clock::now();
            path = pathIn(text);
            return true;
        },
        [] { return true; });
    bool good = tree->OpenModule() && tree->OpenSource();
    for (auto unused : state) {
        static_cast<void>(unused);
        path.clear();
        module.takePicture();
        acquisition.AcquireNewItems();
        state.SetIterationTime(seconds(announced - module.firstPart()));
        good = good && !path.empty() && holdsPicture(path);
        std::remove(path.c_str());
    }
    if (!good || !tree->CloseTree()) {
        state.SkipWithError("a picture was lost or spoilt");
    }
}

// The memory is fresh each time, as the module's is.
void copyAndWrite(benchmark::State& state)
{
    const char* const path = "./floor.jpg";
    const std::string& bytes = content();
    bool good = true;
    for (auto unused : state) {
        static_cast<void>(unused);
        const auto begun = Clock::now();
        void* memory = std::malloc(kSize);
        std::FILE* file = std::fopen(path, "wb");
        if (memory == nullptr || file == nullptr) {
            state.SkipWithError("no memory, or no file");
            return;
        }
        std::memcpy(memory, bytes.data(), kSize);
        good = std::fwrite(memory, 1, kSize, file) == kSize && good;
        good = std::fclose(file) == 0 && good;
        std::free(memory);
        state.SetIterationTime(seconds(Clock::now() - begun));
        good = good && holdsPicture(path);
        std::remove(path);
    }
    if (!good) {
        state.SkipWithError("the floor's file is spoilt");
    }
}

}  // namespace

BENCHMARK(acquire)->Name("picture_nikon/module")->UseManualTime()->Iterations(1);
BENCHMARK(copyAndWrite)->Name("picture_nikon/floor")->UseManualTime()->Iterations(1);
