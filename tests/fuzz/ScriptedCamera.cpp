#include "ScriptedCamera.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

#include "Input.h"

namespace fuzz {

namespace {

constexpr std::uint32_t kCameraId = 1;
constexpr MaidResult kFailed = -127;

ScriptedCamera* g_camera = nullptr;

}  // namespace

MaidCapInfo capInfo(std::uint32_t id, std::uint32_t type, std::uint32_t operations,
                    const std::string& description)
{
    MaidCapInfo info = {};
    info.id = id;
    info.type = type;
    info.operations = operations;
    std::memcpy(info.description, description.data(),
                std::min(description.size(), sizeof info.description));
    return info;
}

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
    g_camera = this;
    m_moduleCaps.push_back(
        capInfo(kMaidCapChildren, kMaidCapTypeEnum, kMaidOperationGet, "Children"));
}

ScriptedCamera::~ScriptedCamera()
{
    g_camera = nullptr;
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

MaidResult MAIDAPI ScriptedCamera::enter(MaidObject* object, std::uint32_t command,
                                         std::uint32_t parameter, std::uint32_t dataType,
                                         MaidData data, MaidCompletionProcedure completion,
                                         MaidReference reference)
{
    const MaidResult result =
        g_camera->serve(object, command, parameter, dataType, reinterpret_cast<void*>(data));
    if (completion != nullptr) {
        completion(object, command, parameter, dataType, data, reference, result);
    }
    return result;
}

MaidResult ScriptedCamera::serve(const MaidObject* object, std::uint32_t command,
                                 std::uint32_t parameter, std::uint32_t dataType, void* data)
{
    const bool isModule = object != nullptr && object->type == kMaidLevelModule;
    switch (command) {
        case kMaidCommandOpen: {
            auto* record = static_cast<MaidObject*>(data);
            record->type = object == nullptr ? kMaidLevelModule : kMaidLevelSource;
            record->id = parameter;
            return kMaidOk;
        }
        case kMaidCommandGetCapCount: {
            const std::uint32_t real =
                static_cast<std::uint32_t>(isModule ? m_moduleCaps.size() : caps.size());
            const std::uint32_t count = isModule ? real : announcedCaps.value_or(real);
            std::memcpy(data, &count, sizeof count);
            return isModule ? kMaidOk : countResult;
        }
        case kMaidCommandGetCapInfo:
            if (isModule) {
                giveCaps(m_moduleCaps, parameter, data);
                return kMaidOk;
            }
            giveCaps(caps, parameter, data);
            return ++fetches > refetches ? infoResult : kMaidBufferSize;
        case kMaidCommandCapGet:
            return giveRecord(parameter, dataType, data);
        case kMaidCommandCapGetArray:
            return giveArray(parameter, data);
        case kMaidCommandCapSet:
            return set(parameter, dataType, data);
        default:
            return kMaidOk;
    }
}

MaidResult ScriptedCamera::giveCaps(const std::vector<MaidCapInfo>& given, std::uint32_t room,
                                    void* data)
{
    const std::size_t count = std::min<std::size_t>(room, given.size());
    if (count > 0) {
        std::memcpy(data, given.data(), count * sizeof(MaidCapInfo));
    }
    return kMaidOk;
}

MaidResult ScriptedCamera::giveRecord(std::uint32_t capId, std::uint32_t dataType, void* data)
{
    if (dataType == kMaidDataTypeUnsignedPtr) {
        const std::uint32_t value = 1;
        std::memcpy(data, &value, sizeof value);
        return kMaidOk;
    }
    if (capId == kMaidCapChildren) {
        const MaidEnum record = {kMaidElementUnsigned, 1, 0, 0, sizeof(std::uint32_t), nullptr};
        std::memcpy(data, &record, sizeof record);
        return kMaidOk;
    }
    const auto found = settings.find(capId);
    if (found == settings.end()) {
        return kFailed;
    }
    std::memcpy(data, &found->second.record, sizeof(MaidEnum));
    return found->second.result;
}

MaidResult ScriptedCamera::giveArray(std::uint32_t capId, void* data)
{
    MaidEnum record = {};
    std::memcpy(&record, data, sizeof record);
    const std::size_t room =
        std::size_t{record.elements} * static_cast<std::size_t>(record.elementSize);
    if (capId == kMaidCapChildren) {
        check(room == sizeof kCameraId, "there is room for the announced elements");
        std::memcpy(record.array, &kCameraId, sizeof kCameraId);
        return kMaidOk;
    }
    const Setting& setting = settings.at(capId);
    const std::size_t size = std::min(room, setting.array.size());
    if (size > 0) {
        std::memcpy(record.array, setting.array.data(), size);
    }
    if (setting.afterwards) {
        std::memcpy(data, &*setting.afterwards, sizeof record);
    }
    return setting.arrayResult;
}

MaidResult ScriptedCamera::set(std::uint32_t capId, std::uint32_t dataType, const void* data)
{
    if (dataType != kMaidDataTypeEnumPtr) {
        return kMaidOk;
    }
    MaidEnum record = {};
    std::memcpy(&record, data, sizeof record);
    setPositions.push_back(record.value);
    return settings.at(capId).setResult;
}

}  // namespace fuzz
