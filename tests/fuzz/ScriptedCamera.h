// A driver module with one camera whose capabilities and settings are what a fuzz target made them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "fakes/Module.h"
#include "nikon/MaidDriver.h"
#include "nikon/MaidTree.h"

namespace fuzz {

using fake::Bytes;
using fake::capInfo;

// An enumeration of the camera, and how its commands end.
struct Setting {
    MaidEnum record = {};
    Bytes array;                         // what the module has; it fills no more than there is room
    MaidResult result = kMaidOk;         // of reading the record
    MaidResult arrayResult = kMaidOk;    // of reading the array
    MaidResult setResult = kMaidOk;      // of changing the position
    std::optional<MaidEnum> afterwards;  // what reading the array leaves in the record
};

class ScriptedCamera : public fake::Module
{
public:
    ScriptedCamera();

    // Opens the module and its camera, with the procedures in this record.
    std::shared_ptr<nikon::MaidTree> open();

    // Adds a well-formed capability of the camera.
    void add(std::uint32_t id, std::uint32_t type, std::uint32_t operations,
             const char* description);

    std::vector<MaidCapInfo> caps;               // of the camera
    std::optional<std::uint32_t> announcedCaps;  // instead of their number
    MaidResult countResult = kMaidOk;
    MaidResult infoResult = kMaidOk;
    int refetches = 0;  // how often the descriptors have to be asked for again
    std::map<std::uint32_t, Setting> settings;
    std::vector<std::uint32_t> setPositions;  // what enumerations were set to
    int fetches = 0;                          // how often the descriptors were asked for

private:
    MaidResult serve(const fake::Call& call) override;
    MaidResult giveInfos(const fake::Call& call);
    MaidResult giveRecord(const fake::Call& call);
    MaidResult giveArray(const fake::Call& call);
    MaidResult setPosition(const fake::Call& call);
};

// Waits are given up almost at once.
nikon::Timing noPatience();

}  // namespace fuzz
