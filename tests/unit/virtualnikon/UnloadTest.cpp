// The library can be unloaded: after a clean end, with objects open, and many times.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Driver.h"

namespace {

void MAIDAPI ignore(MaidObject* /*object*/, std::uint32_t /*command*/, std::uint32_t /*parameter*/,
                    std::uint32_t /*dataType*/, MaidData /*data*/, MaidReference /*reference*/,
                    MaidResult /*result*/)
{}

MaidData dataOf(MaidObject& record)
{
    return reinterpret_cast<MaidData>(&record);
}

void open(const Driver& library, MaidObject& module, MaidObject& source)
{
    ASSERT_EQ(library.entryPoint(nullptr, kMaidCommandOpen, 0, kMaidDataTypeObjectPtr,
                                 dataOf(module), nullptr, nullptr),
              kMaidOk);
    ASSERT_EQ(library.entryPoint(&module, kMaidCommandOpen, 1, kMaidDataTypeObjectPtr,
                                 dataOf(source), nullptr, nullptr),
              kMaidOk);
}

TEST(NikonUnloading, IsPossibleAfterACleanEnd)
{
    for (int i = 0; i < 20; ++i) {
        Driver library(VIRTUAL_NIKON_LIBRARY);
        ASSERT_TRUE(library.isLoaded());
        MaidObject module{};
        MaidObject source{};
        open(library, module, source);
        library.pressShutter(0);
        ASSERT_TRUE(library.waitForPictures(1, 20000));
        library.entryPoint(&source, kMaidCommandClose, 0, 0, 0, nullptr, nullptr);
        library.entryPoint(&module, kMaidCommandClose, 0, 0, 0, nullptr, nullptr);
        EXPECT_EQ(library.misuseCount(), 0);
        library.unload();
        ASSERT_FALSE(Driver::isThere(VIRTUAL_NIKON_LIBRARY));
    }
}

TEST(NikonUnloading, WithObjectsOpenIsMisuseThatTheLogFileTells)
{
    const std::string path = testing::TempDir() + "virtual-nikon-unload.log";
    std::remove(path.c_str());
    setEnvironment("LUMATIE_VIRTUAL_LOG", path.c_str());
    {
        const Driver library(VIRTUAL_NIKON_LIBRARY);
        MaidObject module{};
        MaidObject source{};
        open(library, module, source);
    }
    setEnvironment("LUMATIE_VIRTUAL_LOG", nullptr);
    EXPECT_FALSE(Driver::isThere(VIRTUAL_NIKON_LIBRARY));
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    std::remove(path.c_str());
    EXPECT_NE(text.str().find("MISUSE unloaded with open objects: module#0 source#1"),
              std::string::npos)
        << text.str();
}

TEST(NikonUnloading, IsPossibleWithCommandsThatHaveNotCompleted)
{
    std::vector<const char*> rules = {"CapGet never"};
    if (kUnloadsWithThreads) {
        rules.push_back("CapGet complete_ms=3600000 complete_thread");
        rules.push_back("CapGet complete_thread");
    }
    for (const char* rule : rules) {
        Driver library(VIRTUAL_NIKON_LIBRARY);
        MaidObject module{};
        MaidObject source{};
        open(library, module, source);
        ASSERT_TRUE(library.fault(rule));
        static std::uint32_t value = 0;
        library.entryPoint(&source, kMaidCommandCapGet, kMaidCapLiveness, kMaidDataTypeUnsignedPtr,
                           reinterpret_cast<MaidData>(&value), &ignore, nullptr);
        library.unload();
        EXPECT_FALSE(Driver::isThere(VIRTUAL_NIKON_LIBRARY));
    }
}

}  // namespace
