// Fuzzes the texts that lie one after the other in a camera's settings, and the reports of them: of
// any size, with terminators and without.
#include <optional>
#include <string>
#include <utility>

#include "Input.h"
#include "Lists.h"
#include "ScriptedCamera.h"
#include "Seams.h"
#include "nikon/EnumSetting.h"
#include "nikon/NikonReporting.h"

namespace {

using fuzz::check;
using fuzz::Input;

struct Reports : nikon::ReportReceiver {
    bool send(TetherType type, const std::string& text) override
    {
        texts.emplace_back(type, text);
        return true;
    }
    bool send(TetherType type, int value) override
    {
        values.emplace_back(type, value);
        return true;
    }
    bool isWanted() override { return true; }

    std::vector<std::pair<TetherType, std::string>> texts;
    std::vector<std::pair<TetherType, int>> values;
};

struct ListSetting {
    std::uint32_t capId;
    const char* description;
    TetherType valueType;
    TetherType listType;
};

constexpr ListSetting kLists[] = {
    {kMaidCapShutterSpeed, "Shutter Speed", TETHER_SHUTTERSPEED, TETHER_SHUTTERSPEED_LIST},
    {kMaidCapAperture, "APERTURE", TETHER_APERTURE, TETHER_APERTURE_LIST},
    {kMaidCapSensitivity, "sensitivity", TETHER_ISO, TETHER_ISO_LIST},
    {kMaidCapWhiteBalance, "White Balance mode", TETHER_WB, TETHER_WB_LIST},
};

// The texts as the module gets them: no more than announced, zeros where the camera gave less.
std::vector<std::string> textsOf(const fuzz::Setting& setting)
{
    fuzz::Bytes array = setting.array;
    array.resize(setting.record.elements);
    return fuzz::splitTexts(array);
}

fuzz::Setting takeSetting(Input& input, const fuzz::Bytes& bytes)
{
    fuzz::Setting setting;
    const std::uint32_t shape = input.byte();
    const auto size = static_cast<std::uint32_t>(bytes.size());
    std::uint32_t elements = size;
    if (shape >= 192) {
        elements = shape % 2 == 0 ? size + shape % 64 : size - std::min(size, shape % 64);
    }
    const std::uint32_t value = input.flag() ? input.byte() : input.number<std::uint32_t>();
    setting.record = {kMaidElementPackedText, elements, value, 0, 1, nullptr};
    setting.array = bytes;
    return setting;
}

void checkList(const std::string& text, const std::vector<std::string>& texts, bool isEditable)
{
    fuzz::Entries entries;
    bool isPlain = true;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        entries.emplace_back(std::to_string(i + 1), "'" + texts[i] + "'");
        isPlain = isPlain && !fuzz::hasQuote(texts[i]);
    }
    entries.emplace_back("'NIKON_EDITABLE'", isEditable ? "1" : "0");
    check(text == fuzz::joinEntries(entries), "every text is listed, in order");
    if (isPlain) {
        const std::optional<fuzz::Entries> parsed = fuzz::parseList(text);
        check(parsed && *parsed == entries, "a list reads like one");
    }
}

void checkReports(const fuzz::ScriptedCamera& camera, const Reports& reports, bool isEditable)
{
    check(reports.texts.size() == 6 && reports.values.size() == 4, "every setting is reported");
    for (std::size_t i = 0; i < 4; ++i) {
        const fuzz::Setting& setting = camera.settings.at(kLists[i].capId);
        const std::vector<std::string> texts = textsOf(setting);
        const bool isKnown = setting.record.value < texts.size();
        check(reports.values[i] ==
                  std::make_pair(kLists[i].valueType,
                                 isKnown ? static_cast<int>(setting.record.value) + 1 : 0),
              "the current position counts from 1");
        check(reports.texts[i + 1].first == kLists[i].listType, "the lists come in order");
        checkList(reports.texts[i + 1].second, texts, isEditable);
    }
    const fuzz::Setting& quality = camera.settings.at(kMaidCapImageQuality);
    const std::vector<std::string> texts = textsOf(quality);
    check(reports.texts[5].second ==
              (quality.record.value < texts.size() ? texts[quality.record.value] : ""),
          "the current text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool logs = (fuzz::switchDebugLogOn(), true);
    check(logs, "the log is on");

    Input input(data, size);
    fuzz::ScriptedCamera camera;
    const bool isEditable = input.flag();
    const std::uint32_t operations = kMaidOperationGet | (isEditable ? kMaidOperationSet : 0U);
    camera.add(kMaidCapLiveness, kMaidCapTypeUnsigned, kMaidOperationGet, "");
    camera.add(kMaidCapImageQuality, kMaidCapTypeEnum, operations, "compression level");
    for (const ListSetting& list : kLists) {
        camera.add(list.capId, kMaidCapTypeEnum, operations, list.description);
    }
    // Four settings share the texts, the fifth has the first of them only.
    const std::size_t first = input.byte();
    const fuzz::Bytes shapes = input.bytes(32);
    Input head(shapes.data(), shapes.size());
    const fuzz::Bytes all = input.rest();
    camera.settings[kMaidCapImageQuality] = takeSetting(
        head, fuzz::Bytes(all.begin(),
                          all.begin() + static_cast<std::ptrdiff_t>(std::min(first, all.size()))));
    for (const ListSetting& list : kLists) {
        camera.settings[list.capId] = takeSetting(head, all);
    }

    const auto tree = camera.open();
    Reports reports;
    nikon::NikonReporting reporting(tree, reports);
    check(reporting.ReportNikonProperties() == 1, "the reports are made");
    checkReports(camera, reports, isEditable);

    // Every position that a host may ask for.
    const auto position = head.number<std::uint16_t>();
    nikon::SetEnumPosition(*tree, kMaidCapAperture, position);
    const std::uint32_t elements = camera.settings.at(kMaidCapAperture).record.elements;
    const bool isSet = isEditable && position != 0 && position != 0xFFFF && position <= elements;
    check(camera.setPositions.size() == (isSet ? 1U : 0U), "positions beyond the list are skipped");
    check(!isSet || camera.setPositions.front() == position - 1U, "positions count from 0 there");
    return 0;
}
