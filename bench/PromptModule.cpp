#include "PromptModule.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace bench {

namespace {

constexpr std::size_t kPartSize = std::size_t{256} * 1024;
constexpr std::uint32_t kEverything = 0xF;  // whatever may be done with a capability
constexpr MaidResult kRefused = -127;

PromptModule* g_module = nullptr;

std::string numbers(const std::vector<std::uint32_t>& values)
{
    return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof values[0]};
}

// `count` texts, each with its terminator.
std::string texts(const std::string& prefix, int count)
{
    std::string packed;
    for (int i = 1; i <= count; ++i) {
        packed += prefix + std::to_string(i);
        packed.push_back('\0');
    }
    return packed;
}

}  // namespace

void PromptModule::add(Capabilities& to, std::uint32_t id, std::uint32_t type, const char* text)
{
    Capability made = {};
    made.info.id = id;
    made.info.type = type;
    made.info.operations = kEverything;
    std::strncpy(made.info.description, text, sizeof made.info.description - 1);
    made.number = 1;
    to.push_back(std::move(made));
}

void PromptModule::addEnum(Capabilities& to, std::uint32_t id, const char* text,
                           std::uint32_t elementType, std::int16_t elementSize, std::string array)
{
    add(to, id, kMaidCapTypeEnum, text);
    Capability& made = to.back();
    made.array = std::move(array);
    const auto size = static_cast<std::uint32_t>(elementSize);
    const auto elements = static_cast<std::uint32_t>(made.array.size()) / size;
    made.record = {elementType, elements, 1, 0, elementSize, nullptr};
}

PromptModule::PromptModule(std::string picture) : m_picture(std::move(picture))
{
    for (Capabilities& each : m_capabilities) {
        add(each, kMaidCapProgressProc, 0);
        add(each, kMaidCapEventProc, 0);
    }
    addEnum(m_capabilities[kMaidLevelModule], kMaidCapChildren, "Children", kMaidElementUnsigned, 4,
            numbers({1}));
    Capabilities& source = m_capabilities[kMaidLevelSource];
    addEnum(source, kMaidCapChildren, "Children", kMaidElementUnsigned, 4, "");
    add(source, kMaidCapLiveness, kMaidCapTypeUnsigned);
    addEnum(source, kMaidCapExposureMode, "Exposure Mode", kMaidElementUnsigned, 4,
            numbers({0, 1, 2, 3, 5, 6}));
    // As many entries as a camera of the upper class has.
    addEnum(source, kMaidCapShutterSpeed, "Shutter Speed", kMaidElementPackedText, 1,
            texts("1/", 55));
    addEnum(source, kMaidCapAperture, "Aperture", kMaidElementPackedText, 1, texts("f/", 19));
    addEnum(source, kMaidCapSensitivity, "Sensitivity", kMaidElementPackedText, 1, texts("10", 22));
    addEnum(source, kMaidCapWhiteBalance, "White Balance Mode", kMaidElementPackedText, 1,
            texts("Direct Sunlight ", 12));
    addEnum(source, kMaidCapImageQuality, "Compression Level", kMaidElementPackedText, 1,
            texts("JPEG Fine ", 7));
    Capabilities& item = m_capabilities[kMaidLevelItem];
    add(item, kMaidCapDataTypes, kMaidCapTypeUnsigned);
    Capabilities& data = m_capabilities[kMaidLevelData];
    add(data, kMaidCapDataProc, 0);
    add(data, kMaidCapAcquire, 0);
    g_module = this;
}

PromptModule::~PromptModule()
{
    g_module = nullptr;
}

MaidResult MAIDAPI PromptModule::enter(MaidObject* object, std::uint32_t command,
                                       std::uint32_t parameter, std::uint32_t dataType,
                                       MaidData data, MaidCompletionProcedure completion,
                                       MaidReference reference)
{
    const MaidResult result = g_module->answer(object, command, parameter, dataType, data);
    if (completion != nullptr) {
        completion(object, command, parameter, dataType, data, reference, result);
    }
    return result;
}

void PromptModule::takePicture()
{
    MaidObject source = {};
    source.type = kMaidLevelSource;
    Capability& children = *find(source, kMaidCapChildren);
    children.array = numbers({++m_lastItem});
    children.record.elements = 1;
}

PromptModule::Capability* PromptModule::find(const MaidObject& object, std::uint32_t id)
{
    Capabilities& all = of(object);
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const Capability& one) { return one.info.id == id; });
    return found == all.end() ? nullptr : &*found;
}

MaidResult PromptModule::answer(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                                std::uint32_t dataType, MaidData data)
{
    switch (command) {
        case kMaidCommandOpen: {
            auto* opened = reinterpret_cast<MaidObject*>(data);
            opened->type = object == nullptr ? std::uint32_t{kMaidLevelModule} : object->type + 1;
            opened->id = parameter;
            return kMaidOk;
        }
        case kMaidCommandGetCapCount:
            *reinterpret_cast<std::uint32_t*>(data) =
                static_cast<std::uint32_t>(of(*object).size());
            return kMaidOk;
        case kMaidCommandGetCapInfo: {
            auto* infos = reinterpret_cast<MaidCapInfo*>(data);
            for (const Capability& one : of(*object)) {
                *infos++ = one.info;
            }
            return kMaidOk;
        }
        case kMaidCommandCapStart:
        case kMaidCommandCapSet:
        case kMaidCommandCapGet:
        case kMaidCommandCapGetArray:
            return answerCapability(*object, command, parameter, dataType, data);
        default:
            return kMaidOk;
    }
}

MaidResult PromptModule::answerCapability(const MaidObject& object, std::uint32_t command,
                                          std::uint32_t parameter, std::uint32_t dataType,
                                          MaidData data)
{
    Capability* found = find(object, parameter);
    if (found == nullptr) {
        return kRefused;
    }
    auto* target = reinterpret_cast<void*>(data);
    if (command == kMaidCommandCapStart) {
        return parameter == kMaidCapAcquire ? deliver() : kMaidOk;
    }
    if (command == kMaidCommandCapGet && dataType == kMaidDataTypeUnsignedPtr) {
        std::memcpy(target, &found->number, sizeof found->number);
    } else if (command == kMaidCommandCapGet) {
        std::memcpy(target, &found->record, sizeof found->record);
    } else if (command == kMaidCommandCapGetArray) {
        std::memcpy(static_cast<MaidEnum*>(target)->array, found->array.data(),
                    found->array.size());
    } else if (parameter == kMaidCapDataProc && dataType == kMaidDataTypeCallbackPtr) {
        std::memcpy(&m_dataProcedure, target, sizeof m_dataProcedure);
    }
    return kMaidOk;
}

MaidResult PromptModule::deliver()
{
    m_firstPart = Clock::now();
    MaidFileInfo info = {};
    info.kind = kMaidDataFile | kMaidDataImage;
    info.fileType = kMaidFileJpeg;
    info.totalLength = static_cast<std::uint32_t>(m_picture.size());
    info.removeObject = 1;
    const auto procedure = reinterpret_cast<MaidDataProcedure>(m_dataProcedure.procedure);
    for (std::size_t at = 0; at < m_picture.size(); at += info.length) {
        info.length = static_cast<std::uint32_t>(std::min(kPartSize, m_picture.size() - at));
        const MaidResult result =
            procedure(m_dataProcedure.reference, &info, m_picture.data() + at);
        if (result != kMaidOk) {
            return result;
        }
    }
    return kMaidOk;
}

}  // namespace bench
