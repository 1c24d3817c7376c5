// Fuzzes what a camera says of its capabilities: the list of descriptors, the enumeration of one of
// them, and the texts of numbers. What the module makes of it is compared with what it should.
#include <array>
#include <limits>
#include <optional>
#include <string>

#include "Input.h"
#include "Lists.h"
#include "ScriptedCamera.h"
#include "nikon/CapabilityTexts.h"
#include "nikon/EnumSetting.h"
#include "nikon/MaidCommands.h"

namespace {

using fuzz::check;
using fuzz::Input;

constexpr std::uint32_t kMostCaps = 65'536;
constexpr std::uint64_t kMostArrayBytes = std::uint64_t{64} << 20U;
constexpr int kMostTries = 1000;

// Arrays between this and the module's own limit would only make it slow.
constexpr std::uint64_t kLongestArray = 4096;

constexpr std::uint32_t kCapIds[] = {0x8111, 0x8112, 0x8113, 0x8117, 0x8118, 0x8110, 7,
                                     3,      2,      0,      0x35,   0x8116, 0x8120, 0x8122,
                                     0x814E, 0x818C, 0x822E, 0x823F, 0x81D7};
constexpr std::uint32_t kTypes[] = {kMaidCapTypeEnum, kMaidCapTypeEnum, kMaidCapTypeUnsigned, 0};
constexpr std::uint32_t kElementTypes[] = {kMaidElementUnsigned, kMaidElementPackedText,
                                           kMaidElementOther, 0};
constexpr const char* kDescriptions[] = {"Shutter Speed",      "aperture",          "SENSITIVITY",
                                         "White Balance Mode", "Compression Level", ""};

MaidResult resultOf(Input& input)
{
    constexpr MaidResult results[] = {kMaidOk, kMaidPending, kMaidBufferSize, -127, 2};
    const std::uint8_t choice = input.byte();
    return choice < 224 ? kMaidOk : results[choice % 5];
}

MaidCapInfo takeCap(Input& input)
{
    const std::uint32_t id = input.oneOf(kCapIds);
    const std::uint32_t type = input.oneOf(kTypes);
    const std::uint32_t operations = input.byte();
    const std::uint32_t choice = input.below(8);
    const std::string description = choice < 6   ? kDescriptions[choice]
                                    : choice < 7 ? input.text(input.byte())
                                                 : std::string(256, 'x');
    return fuzz::capInfo(id, type, operations, description);
}

std::uint32_t takeAnnounced(Input& input, std::size_t real)
{
    const std::uint32_t choice = input.below(8);
    const auto count = static_cast<std::uint32_t>(real);
    if (choice == 0) {
        return kMostCaps + 1 + input.number<std::uint32_t>() / 2;
    }
    return choice < 6 ? count : input.number<std::uint16_t>() % 512U;
}

MaidEnum takeRecord(Input& input)
{
    MaidEnum record = {};
    record.elementType = input.oneOf(kElementTypes);
    const std::uint32_t shape = input.below(8);
    const bool isText = record.elementType == kMaidElementPackedText;
    record.elementSize =
        static_cast<std::int16_t>(shape < 6 ? (isText ? 1 : 4) : input.number<std::int16_t>());
    const bool fits = shape % 2 == 0;
    record.elements = fits ? 0 : input.number<std::uint32_t>();
    record.value = input.flag() ? input.byte() : input.number<std::uint32_t>();
    record.defaultValue = input.byte();
    if (fits) {
        record.elements = static_cast<std::uint32_t>(isText ? input.left() : input.left() / 4);
    }
    // An honest size is small, or beyond everything.
    const auto bytes = std::uint64_t{record.elements} *
                       static_cast<std::uint64_t>(std::max<int>(record.elementSize, 1));
    if (bytes > kLongestArray && bytes <= kMostArrayBytes) {
        record.elements %= 64;
    }
    return record;
}

// What the module should make of the camera.
struct Expected {
    bool done = false;
    std::string exposureMode;
    std::string imageQuality;
    std::array<fuzz::Entries, 4> lists;  // of the settings with the first descriptions
    std::array<int, 4> indices = {};
    std::optional<std::uint32_t> position;  // that the camera is set to
};

bool equalInAnyCase(std::string text, const char* name)
{
    std::string other = name;
    for (std::string* each : {&text, &other}) {
        for (char& letter : *each) {
            letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
        }
    }
    return text == other;
}

void expectTexts(const std::string& description, const fuzz::Setting& setting,
                 const fuzz::Bytes& array, Expected& expected)
{
    std::size_t list = 0;
    while (list < 4 && !equalInAnyCase(description, kDescriptions[list])) {
        ++list;
    }
    const std::vector<std::string> texts = fuzz::splitTexts(array);
    for (std::size_t i = 0; list < 4 && i < texts.size(); ++i) {
        expected.lists[list].emplace_back(std::to_string(i + 1), "'" + texts[i] + "'");
    }
    if (setting.record.value < texts.size()) {
        if (list < 4) {
            expected.indices[list] = static_cast<int>(setting.record.value) + 1;
        } else if (equalInAnyCase(description, kDescriptions[4])) {
            expected.imageQuality = texts[setting.record.value];
        }
    }
}

Expected expect(const std::optional<MaidCapInfo>& info, const fuzz::Setting& setting,
                std::optional<std::uint16_t> position)
{
    Expected expected;
    const bool isReadable =
        info && (info->operations & kMaidOperationGet) != 0 && info->type == kMaidCapTypeEnum;
    if (!isReadable || setting.result != kMaidOk) {
        return expected;
    }
    const MaidEnum& record = setting.record;
    const bool isText = record.elementType == kMaidElementPackedText;
    if (!isText && record.elementType != kMaidElementUnsigned) {
        expected.done = record.elementType == kMaidElementOther;
        return expected;
    }
    if (record.elementSize != (isText ? 1 : 4)) {
        return expected;
    }
    if (record.elements == 0) {
        expected.done = true;
        return expected;
    }
    const std::uint64_t size =
        std::uint64_t{record.elements} * static_cast<std::uint64_t>(record.elementSize);
    if (size > kMostArrayBytes || setting.arrayResult != kMaidOk) {
        return expected;
    }
    fuzz::Bytes array = setting.array;
    array.resize(static_cast<std::size_t>(size));
    expected.done = true;
    if (!isText) {
        if (record.value < record.elements) {
            std::uint32_t number = 0;
            std::memcpy(&number, array.data() + std::size_t{record.value} * 4, sizeof number);
            expected.exposureMode = nikon::CapabilityValueText(info->id, number);
        }
        return expected;
    }
    expectTexts(nikon::DescriptionOf(*info), setting, array, expected);
    if (position && (info->operations & kMaidOperationSet) == 0) {
        expected.done = false;
    } else if (position && *position != 0 && *position != 0xFFFF && *position <= record.elements) {
        expected.position = *position - 1U;
        expected.done = setting.setResult == kMaidOk;
    }
    return expected;
}

// The descriptors that the camera should be known to have.
std::vector<MaidCapInfo> expectCaps(const fuzz::ScriptedCamera& camera)
{
    const std::uint32_t announced = camera.announcedCaps.value_or(0);
    const bool isGood = camera.infoResult == kMaidOk || camera.infoResult == kMaidPending;
    std::vector<MaidCapInfo> caps;
    if (camera.countResult == kMaidOk && announced <= kMostCaps && isGood) {
        caps = camera.caps;
        caps.resize(announced);
    }
    return caps;
}

std::optional<MaidCapInfo> firstOf(const std::vector<MaidCapInfo>& caps, std::uint32_t id)
{
    for (const MaidCapInfo& info : caps) {
        if (info.id == id) {
            return info;
        }
    }
    return std::nullopt;
}

void checkDescriptors(nikon::MaidTree& tree, const std::vector<MaidCapInfo>& caps)
{
    for (const std::uint32_t id : kCapIds) {
        const std::optional<MaidCapInfo> expected = firstOf(caps, id);
        const auto found = nikon::FindCapability(tree.driver(), tree.source(), id);
        check(found.has_value() == expected.has_value(), "a capability is known");
        if (found) {
            check(std::memcmp(&*found, &*expected, sizeof *found) == 0, "the first one counts");
            const std::string text = nikon::DescriptionOf(*found);
            check(text.size() <= kMaidDescriptionSize && text.find('\0') == std::string::npos,
                  "a description is a text");
        }
    }
}

void checkValueText(std::uint32_t capId, std::uint32_t value)
{
    const std::string text = nikon::CapabilityValueText(capId, value);
    check(!text.empty() && text.size() < 40, "every value has a short text");
}

void checkReading(nikon::MaidTree& tree, std::uint32_t capId, const Expected& expected)
{
    nikon::EnumReadings readings;
    check(nikon::ReadEnumCapability(tree, capId, readings) == expected.done,
          "the reading ends as it should");
    check(readings.exposureMode == expected.exposureMode, "the exposure mode's text");
    check(readings.imageQuality == expected.imageQuality, "the image quality's text");
    for (std::size_t i = 0; i < 4; ++i) {
        check(readings.lists[i].list.text() == fuzz::joinEntries(expected.lists[i]),
              "the list's text");
        check(readings.lists[i].index == expected.indices[i], "the current position");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    fuzz::ScriptedCamera camera;
    const std::uint32_t capId = input.oneOf(kCapIds);
    for (std::uint32_t count = input.below(24); count > 0; --count) {
        camera.caps.push_back(takeCap(input));
    }
    camera.announcedCaps = takeAnnounced(input, camera.caps.size());
    camera.countResult = resultOf(input);
    camera.infoResult = resultOf(input);
    const std::uint32_t refetches = input.byte();
    camera.refetches = refetches == 255 ? kMostTries + 1 : static_cast<int>(refetches % 8);
    // These answers mean that the list is to be asked for again.
    const bool isEndless = camera.countResult == kMaidBufferSize ||
                           camera.infoResult == kMaidBufferSize || refetches == 255;
    if (isEndless && *camera.announcedCaps <= kMostCaps) {
        *camera.announcedCaps %= 8;  // a thousand times
    }

    const bool changes = input.flag();
    const std::optional<std::uint16_t> position =
        changes ? std::make_optional(input.number<std::uint16_t>()) : std::nullopt;
    const std::uint32_t valueCapId = input.oneOf(kCapIds);
    checkValueText(valueCapId, input.number<std::uint32_t>());

    fuzz::Setting& setting = camera.settings[capId];
    setting.result = resultOf(input);
    setting.arrayResult = resultOf(input);
    setting.setResult = resultOf(input);
    if (input.flag()) {
        const std::uint32_t shape = input.number<std::uint32_t>();
        setting.afterwards = MaidEnum{shape, shape / 3, shape / 5, 0, -1, &camera};
    }
    MaidEnum record = takeRecord(input);
    setting.array = input.rest();
    if (record.elements > 0 && record.elementSize == 1 && setting.array.size() < 8) {
        record.elements = static_cast<std::uint32_t>(setting.array.size());
    }
    setting.record = record;

    const auto tree = camera.open();
    check(camera.fetches <= kMostTries, "nobody is asked for ever");
    const std::vector<MaidCapInfo> caps =
        isEndless ? std::vector<MaidCapInfo>() : expectCaps(camera);
    checkDescriptors(*tree, caps);
    if (capId == kMaidCapChildren) {
        return 0;
    }
    const Expected expected = expect(firstOf(caps, capId), setting, position);
    if (position) {
        check(nikon::SetEnumPosition(*tree, capId, *position) == expected.done,
              "the setting ends as it should");
    } else {
        checkReading(*tree, capId, expected);
    }
    check(camera.setPositions.size() == (expected.position ? 1U : 0U) &&
              (!expected.position || camera.setPositions.front() == *expected.position),
          "the position that is set");
    return 0;
}
