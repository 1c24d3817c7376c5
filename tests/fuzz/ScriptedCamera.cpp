#include "ScriptedCamera.h"

#include <chrono>

#include "Input.h"

namespace fuzz {

using fake::Call;

nikon::Timing noPatience()
{
    using std::chrono::milliseconds;
    nikon::Timing timing;
    timing.poll = timing.pause = timing.refused = milliseconds(0);
    timing.running = timing.stopping = timing.closing = timing.hanging = milliseconds(1);
    return timing;
}

ScriptedCamera::ScriptedCamera()
{
    module.cap(kMaidCapChildren, kMaidCapTypeEnum, kMaidOperationGet, "Children");
    module.addChild(kMaidLevelSource, 1);
}

std::shared_ptr<nikon::MaidTree> ScriptedCamera::open()
{
    auto tree = std::make_shared<nikon::MaidTree>(std::make_shared<nikon::MaidLibrary>(enter),
                                                  noPatience());
    check(tree->OpenModule() && tree->OpenSource(), "the camera is opened");
    return tree;
}

void ScriptedCamera::add(std::uint32_t id, std::uint32_t type, std::uint32_t operations,
                         const char* description)
{
    caps.push_back(capInfo(id, type, operations, description));
}

MaidResult ScriptedCamera::serve(const Call& call)
{
    if (call.object == nullptr || call.object->level == kMaidLevelModule) {
        check(call.command != kMaidCommandCapGetArray || fake::roomAt(call.data) == 4,
              "there is room for the announced elements");
        return Module::serve(call);
    }
    switch (call.command) {
        case kMaidCommandGetCapCount:
            fake::write(call.data, announcedCaps.value_or(static_cast<std::uint32_t>(caps.size())));
            return countResult;
        case kMaidCommandGetCapInfo:
            return giveInfos(call);
        case kMaidCommandCapGet:
            return giveRecord(call);
        case kMaidCommandCapGetArray:
            return giveArray(call);
        case kMaidCommandCapSet:
            return setPosition(call);
        default:
            return Module::serve(call);
    }
}

MaidResult ScriptedCamera::giveInfos(const Call& call)
{
    fake::writeInfos(call.data, caps, call.parameter);
    return ++fetches > refetches ? infoResult : kMaidBufferSize;
}

MaidResult ScriptedCamera::giveRecord(const Call& call)
{
    if (call.dataType == kMaidDataTypeUnsignedPtr) {
        fake::write(call.data, std::uint32_t{1});
        return kMaidOk;
    }
    const auto found = settings.find(call.parameter);
    if (found == settings.end()) {
        return fake::kRefused;
    }
    fake::write(call.data, found->second.record);
    return found->second.result;
}

MaidResult ScriptedCamera::giveArray(const Call& call)
{
    const Setting& setting = settings.at(call.parameter);
    fake::writeArray(call.data, setting.array);
    if (setting.afterwards) {
        fake::write(call.data, *setting.afterwards);
    }
    return setting.arrayResult;
}

MaidResult ScriptedCamera::setPosition(const Call& call)
{
    if (call.dataType != kMaidDataTypeEnumPtr) {
        return kMaidOk;
    }
    setPositions.push_back(fake::recordAt<MaidEnum>(call.data).value);
    return settings.at(call.parameter).setResult;
}

}  // namespace fuzz
