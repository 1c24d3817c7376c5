// The functions of Canon's library that the fuzzed sources call, answered as a fuzz target says.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "EdSdk.h"

namespace fuzz {

struct FakeEds {
    // Any address: nobody looks behind it.
    static EdsBaseRef object();

    EdsError result = 0;  // of every function that has no own one below
    std::uint32_t propertySize = 0;
    std::vector<unsigned char> property;  // what a read gives, as far as there is room
    EdsPropertyDesc description = {};
    EdsDirectoryItemInfo item = {};
    EdsError itemResult = 0;
    EdsError downloadResult = 0;
    std::uint32_t references = 0;  // what a release says
    std::string streamPath;        // what a file was to be made at
    std::uint64_t downloadSize = 0;
    int releases = 0;
};

// What the functions answer from.
FakeEds& fakeEds();

}  // namespace fuzz
