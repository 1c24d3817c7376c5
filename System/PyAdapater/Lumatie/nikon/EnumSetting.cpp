#include "nikon/EnumSetting.h"

#include <optional>
#include <utility>

#include "Text.h"
#include "nikon/CapabilityTexts.h"
#include "nikon/MaidCommands.h"

namespace nikon {

namespace {

// Never a position, however long the list is: hosts know it as "do not set".
constexpr std::uint16_t kNoPosition = 0xFFFF;

constexpr const char* kImageQuality = "Compression Level";

// The setting whose list a capability's texts belong to, by its own words for itself; null when it
// has none.
ListReading* listOf(EnumReadings& readings, const std::string& description)
{
    static const std::pair<const char*, ListSetting> names[] = {
        {"Shutter Speed", ListSetting::shutterSpeed},
        {"Aperture", ListSetting::aperture},
        {"Sensitivity", ListSetting::sensitivity},
        {"White Balance Mode", ListSetting::whiteBalance},
    };
    for (const auto& [name, setting] : names) {
        if (equalIgnoringCase(description, name)) {
            return &readings.of(setting);
        }
    }
    return nullptr;
}

// Walks the texts, each with its terminator; the last one may lack it.
void readTexts(const EnumBuffer& buffer, std::uint32_t current, const std::string& description,
               EnumReadings& readings)
{
    ListReading* const target = listOf(readings, description);
    const bool isQuality = equalIgnoringCase(description, kImageQuality);
    if (target == nullptr && !isQuality) {
        return;
    }
    const auto* const bytes = reinterpret_cast<const char*>(buffer.array.data());
    const std::size_t size = buffer.array.size();
    std::uint32_t position = 1;
    for (std::size_t offset = 0; offset < size; ++position) {
        const std::string text = fieldText(bytes + offset, size - offset);
        offset += text.size() + 1;
        const bool isCurrent = position - 1 == current;
        if (target != nullptr) {
            target->list.add(position, text.c_str());
            target->index = isCurrent ? static_cast<int>(position) : target->index;
        } else if (isCurrent) {
            readings.imageQuality = text;
        }
    }
}

bool setPosition(MaidDriver& driver, const MaidObjectPtr& source, std::uint32_t capId,
                 const std::shared_ptr<EnumBuffer>& buffer, std::uint32_t count,
                 std::uint16_t position)
{
    if (!FindCapability(driver, source, capId, kMaidOperationSet)) {
        return false;
    }
    if (position == 0 || position == kNoPosition || position > count) {
        return true;
    }
    buffer->record.value = position - 1U;
    return SetCapability(driver, source, capId, kMaidDataTypeEnumPtr,
                         reinterpret_cast<MaidData>(&buffer->record), buffer);
}

// An enumeration as the camera gave it.
struct Answer {
    std::shared_ptr<EnumBuffer> buffer;
    // Of the record before the array's command, which may change it.
    std::uint32_t type = 0;
    std::uint32_t current = 0;
    std::uint32_t count = 0;
    std::string description;
};

// Nothing when the camera did not answer, or has another kind of enumeration. An enumeration
// without elements, or of a kind that is left alone, has no array.
std::optional<Answer> ask(MaidDriver& driver, const MaidObjectPtr& source, std::uint32_t capId)
{
    const auto info = FindCapability(driver, source, capId, kMaidOperationGet);
    if (!info || info->type != kMaidCapTypeEnum) {
        return std::nullopt;
    }
    Answer answer;
    answer.buffer = GetEnum(driver, source, capId);
    if (!answer.buffer) {
        return std::nullopt;
    }
    const MaidEnum& record = answer.buffer->record;
    answer.type = record.elementType;
    answer.current = record.value;
    answer.count = record.elements;
    answer.description = DescriptionOf(*info);
    if (answer.type == kMaidElementOther) {
        answer.count = 0;
        return answer;
    }
    const bool isNumbers =
        answer.type == kMaidElementUnsigned && record.elementSize == sizeof(std::uint32_t);
    const bool isTexts = answer.type == kMaidElementPackedText && record.elementSize == 1;
    if (!isNumbers && !isTexts) {
        return std::nullopt;
    }
    if (answer.count > 0 && !GetCapabilityArray(driver, source, capId, answer.buffer)) {
        return std::nullopt;
    }
    return answer;
}

}  // namespace

bool ReadEnumCapability(MaidTree& tree, std::uint32_t capId, EnumReadings& readings)
{
    MaidDriver& driver = tree.driver();
    const MaidDriver::Guard guard(driver);
    const std::optional<Answer> answer = ask(driver, guard ? tree.source() : nullptr, capId);
    if (!answer) {
        return false;
    }
    if (answer->type == kMaidElementPackedText) {
        readTexts(*answer->buffer, answer->current, answer->description, readings);
    } else if (answer->current < answer->count) {
        // Numbers are the exposure mode's, whichever capability has them.
        readings.exposureMode =
            CapabilityValueText(capId, NumberAt(*answer->buffer, answer->current));
    }
    return true;
}

bool SetEnumPosition(MaidTree& tree, std::uint32_t capId, std::uint16_t position)
{
    MaidDriver& driver = tree.driver();
    const MaidDriver::Guard guard(driver);
    const MaidObjectPtr source = guard ? tree.source() : nullptr;
    const std::optional<Answer> answer = ask(driver, source, capId);
    if (!answer) {
        return false;
    }
    return answer->type != kMaidElementPackedText || answer->count == 0 ||
           setPosition(driver, source, capId, answer->buffer, answer->count, position);
}

}  // namespace nikon
