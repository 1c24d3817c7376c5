#include "nikon/EnumReader.h"

#include <algorithm>

#include "Text.h"
#include "nikon/CapabilityTexts.h"
#include "nikon/MaidCommands.h"

namespace nikon {

namespace {

// Never a position, however long the list is: hosts know it as "do not set".
constexpr std::uint16_t kNoPosition = 0xFFFF;

// The setting's own words for itself, which decide what its texts are for.
enum class Use { list, currentText, none };

Use useOf(const std::string& description)
{
    const char* const lists[] = {"Shutter Speed", "Aperture", "Sensitivity", "White Balance Mode"};
    const bool isList = std::any_of(std::begin(lists), std::end(lists), [&](const char* name) {
        return equalIgnoringCase(description, name);
    });
    if (isList) {
        return Use::list;
    }
    return equalIgnoringCase(description, "Compression Level") ? Use::currentText : Use::none;
}

bool readNumbers(MaidDriver& driver, const MaidObjectPtr& source, std::uint32_t capId,
                 const std::shared_ptr<EnumBuffer>& buffer, EnumReading& reading)
{
    const std::uint32_t current = buffer->record.value;
    const std::uint32_t count = buffer->record.elements;
    if (buffer->record.elementSize != sizeof(std::uint32_t)) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    if (!GetCapabilityArray(driver, source, capId, buffer)) {
        return false;
    }
    if (current < count && capId == kMaidCapExposureMode) {
        reading.text = CapabilityValueText(capId, NumberAt(*buffer, current));
    }
    return true;
}

// Walks the texts, each with its terminator; the last one may lack it.
void readTexts(const EnumBuffer& buffer, std::uint32_t current, Use use, EnumReading& reading)
{
    const auto* const bytes = reinterpret_cast<const char*>(buffer.array.data());
    const std::size_t size = buffer.array.size();
    std::uint32_t position = 1;
    for (std::size_t offset = 0; offset < size; ++position) {
        const std::string text = fieldText(bytes + offset, size - offset);
        offset += text.size() + 1;
        const bool isCurrent = position - 1 == current;
        if (use == Use::list) {
            reading.list.add(position, text.c_str());
            reading.index = isCurrent ? static_cast<int>(position) : reading.index;
        } else if (use == Use::currentText && isCurrent) {
            reading.text = text;
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

}  // namespace

bool ReadEnumCapability(MaidTree& tree, std::uint32_t capId, std::optional<std::uint16_t> position,
                        EnumReading& reading)
{
    MaidDriver& driver = tree.driver();
    const MaidDriver::Guard guard(driver);
    const MaidObjectPtr source = guard ? tree.source() : nullptr;
    const auto info = FindCapability(driver, source, capId, kMaidOperationGet);
    if (!info || info->type != kMaidCapTypeEnum) {
        return false;
    }
    const std::shared_ptr<EnumBuffer> buffer = GetEnum(driver, source, capId);
    if (!buffer) {
        return false;
    }
    // Of the record as it is now: the array's command may change it.
    const std::uint32_t current = buffer->record.value;
    const std::uint32_t count = buffer->record.elements;
    switch (buffer->record.elementType) {
        case kMaidElementUnsigned:
            return readNumbers(driver, source, capId, buffer, reading);
        case kMaidElementPackedText:
            break;
        default:
            return buffer->record.elementType == kMaidElementOther;
    }
    if (buffer->record.elementSize != 1) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    if (!GetCapabilityArray(driver, source, capId, buffer)) {
        return false;
    }
    readTexts(*buffer, current, useOf(DescriptionOf(*info)), reading);
    return !position || setPosition(driver, source, capId, buffer, count, *position);
}

}  // namespace nikon
