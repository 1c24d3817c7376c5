// Fuzzes the texts that the host receives: lists built entry by entry, what became of a picture,
// and the reports of a Canon camera whose values and descriptions hold anything.
#include <array>
#include <cstdarg>
#include <cstdint>
#include <optional>
#include <string>

#include "EdSdkCodes.h"
#include "FakeEds.h"
#include "Input.h"
#include "Lists.h"
#include "PyCallback.h"
#include "Seams.h"
#include "TetherEvents.h"
#include "TetherTexts.h"
#include "canon/CameraModel.h"
#include "canon/CanonReporting.h"
#include "canon/CanonTables.h"
#include "canon/Observer.h"

namespace {

using fuzz::check;
using fuzz::Entries;
using fuzz::Input;

// A call of the host's callable.
struct HostCall {
    int type = -1;
    std::optional<int> number;
    std::optional<std::string> text;
};

std::vector<HostCall>& hostCalls()
{
    static std::vector<HostCall> calls;
    return calls;
}

std::string quoted(const std::string& text)
{
    return "'" + text + "'";
}

void fuzzList(Input& input)
{
    ListText list;
    Entries entries;
    bool isPlain = true;
    for (std::uint32_t count = input.below(64); count > 0; --count) {
        const auto key = input.number<std::uint32_t>();
        switch (input.below(3)) {
            case 0: {
                const std::string text = input.text(input.byte());
                list.add(key, text.c_str());
                entries.emplace_back(std::to_string(key), quoted(text.c_str()));
                isPlain = isPlain && !fuzz::hasQuote(text);
                break;
            }
            case 1: {
                const auto value = input.number<std::int32_t>();
                list.add(key, value);
                entries.emplace_back(std::to_string(key), std::to_string(value));
                break;
            }
            default:
                list.addFlag(TETHER_NIKON_EDITABLE, (key & 1U) != 0);
                entries.emplace_back("'NIKON_EDITABLE'", (key & 1U) != 0 ? "1" : "0");
        }
    }
    check(list.text() == fuzz::joinEntries(entries), "a list holds what was added");
    if (isPlain) {
        const std::optional<Entries> parsed = fuzz::parseList(list.text());
        check(parsed && *parsed == entries, "a list reads like one");
    }
}

void fuzzPicture(Input& input)
{
    const std::string path = input.text(kLastFileSize - 1);
    g_szLastFile.set(path);
    const std::string text = pictureText(g_szLastFile.take());
    check(g_szLastFile.take().empty(), "a picture is reported once");
    const bool isError = path.size() == 5 && (path[0] | 0x20) == 'e' && (path[1] | 0x20) == 'r' &&
                         (path[2] | 0x20) == 'r' && (path[3] | 0x20) == 'o' &&
                         (path[4] | 0x20) == 'r';
    check(text == (isError ? "{'GENERAL_WRITEFAIL':1}" : "{'GENERAL_NEWFILE':r'" + path + "'}"),
          "a picture's text");
}

// The tables and types of the settings that are reported.
struct Setting {
    EdsPropertyID property;
    int valueType;
    int listType;
    canon::CodeTexts canon::CanonTables::*table;
};

constexpr std::array<Setting, 4> kCodeSettings = {{
    {canon::kPropTv, TETHER_SHUTTERSPEED, TETHER_SHUTTERSPEED_LIST, &canon::CanonTables::m_mapTv},
    {canon::kPropAv, TETHER_APERTURE, TETHER_APERTURE_LIST, &canon::CanonTables::m_mapAv},
    {canon::kPropISOSpeed, TETHER_ISO, TETHER_ISO_LIST, &canon::CanonTables::m_mapISO},
    {canon::kPropWhiteBalance, TETHER_WB, TETHER_WB_LIST, &canon::CanonTables::m_mapWB},
}};

constexpr std::uint32_t kProperties[] = {0x436, 0x405, 0x406, 0x402, 0x106, 0x107, 0x100, 0x403};
constexpr std::uint32_t kCodes[] = {0,    3,          0x0C,       0x10,      0x13, 0x28,
                                    0x30, 0x48,       0x4B,       0x60,      0x98, 0x06,
                                    0x0F, 0xFFFFFFFF, 0x0064FF0F, 0x00100012};

EdsPropertyDesc takeDescription(Input& input)
{
    EdsPropertyDesc description = {};
    const std::uint32_t shape = input.byte();
    for (std::int32_t& value : description.propDesc) {
        value = static_cast<std::int32_t>(input.empty() ? shape : input.oneOf(kCodes));
    }
    description.numElements =
        shape < 224 ? static_cast<std::int32_t>(shape % 140) : input.number<std::int32_t>();
    return description;
}

const EdsPropertyDesc& descriptionOf(const canon::CameraModel& model, EdsPropertyID property)
{
    switch (property) {
        case canon::kPropTv:
            return model.TvDesc;
        case canon::kPropAv:
            return model.AvDesc;
        case canon::kPropISOSpeed:
            return model.ISOSpeedDesc;
        default:
            return fuzz::fakeEds().description;
    }
}

Entries expectList(const EdsPropertyDesc& description, const canon::CodeTexts* table)
{
    Entries entries;
    for (std::int32_t i = 0; i < description.numElements && i < 128; ++i) {
        const std::int32_t value = description.propDesc[i];
        if (table == nullptr) {
            entries.emplace_back(std::to_string(i), std::to_string(value));
        } else if (const auto found = table->find(static_cast<std::uint32_t>(value));
                   found != table->end()) {
            entries.emplace_back(std::to_string(found->first), quoted(found->second));
        }
    }
    return entries;
}

void checkListCall(const HostCall& call, const canon::CameraModel& model, EdsPropertyID property)
{
    const canon::CodeTexts* table = nullptr;
    int type = TETHER_COLORTEMP_LIST;
    for (const Setting& setting : kCodeSettings) {
        if (setting.property == property) {
            table = &(canon::canonTables().*setting.table);
            type = setting.listType;
        }
    }
    check(call.type == type && call.text && !call.number, "a list is a text");
    const Entries expected = expectList(descriptionOf(model, property), table);
    check(*call.text == fuzz::joinEntries(expected), "a list holds every code that has a text");
    const std::optional<Entries> parsed = fuzz::parseList(*call.text);
    check(parsed && *parsed == expected, "a list reads like one");
}

void checkValueCall(const HostCall& call, EdsPropertyID property)
{
    for (const Setting& setting : kCodeSettings) {
        if (setting.property == property) {
            const canon::CodeTexts& table = canon::canonTables().*setting.table;
            check(call.type == setting.valueType && call.number && call.text, "code and text");
            check(table.at(static_cast<std::uint32_t>(*call.number)) == *call.text,
                  "the text is the code's");
            return;
        }
    }
    const bool isNumber = property == canon::kPropColorTemperature;
    check(call.number.has_value() == isNumber && call.text.has_value() != isNumber,
          "a number or a text");
}

void checkCalls(const canon::CameraModel& model, const canon::CameraEvent& event)
{
    check(hostCalls().size() <= 1, "an event is one call");
    if (hostCalls().empty()) {
        return;
    }
    const HostCall& call = hostCalls().front();
    if (event.name == "PropertyChanged") {
        checkValueCall(call, *static_cast<const std::uint32_t*>(event.arg));
    } else if (event.name == "PropertyDescChanged") {
        checkListCall(call, model, *static_cast<const std::uint32_t*>(event.arg));
    } else {
        check(call.type == TETHER_GENERAL && call.text, "everything else is a status");
        check(event.name == "error" || event.name == "DownloadComplete", "an event with a status");
    }
}

void takeLibrary(Input& input)
{
    fuzz::FakeEds& eds = fuzz::fakeEds();
    eds = {};
    eds.result = input.below(8) == 7 ? input.number<std::uint32_t>() : 0;
    eds.propertySize = input.flag() ? input.byte() : input.number<std::uint32_t>();
    // Sizes in between would only make it slow.
    if (eds.propertySize > 65'536 && eds.propertySize < 0x01000000) {
        eds.propertySize %= 65'536;
    }
    const std::uint32_t code = input.oneOf(kCodes);
    eds.property.resize(sizeof code);
    std::memcpy(eds.property.data(), &code, sizeof code);
    eds.property.resize(sizeof code + input.byte());
}

void fuzzCanon(Input& input)
{
    takeLibrary(input);
    canon::CameraModel model(fuzz::FakeEds::object());
    PyCallback callback;
    for (std::uint32_t count = input.below(8); count > 0; --count) {
        model.setPropertyValue(input.oneOf(kProperties), input.oneOf(kCodes));
    }
    const std::uint32_t property = input.oneOf(kProperties);
    const bool isList = input.flag();
    const std::uint32_t kind = input.below(8);
    if (isList) {
        const EdsPropertyDesc description = takeDescription(input);
        model.setPropertyDesc(property, description);
        fuzz::fakeEds().description = description;
    }
    g_szLastFile.set(input.text(16));
    canon::CameraEvent event;
    event.name = kind == 0   ? "error"
                 : kind == 1 ? "DownloadComplete"
                 : kind == 2 ? input.text(20)
                 : isList    ? "PropertyDescChanged"
                             : "PropertyChanged";
    const std::uint32_t argument = kind == 0 && input.flag() ? canon::kHostDeviceBusy : property;
    event.arg = &argument;
    hostCalls().clear();
    canon::reportToHost(callback, model, event);
    checkCalls(model, event);
    if (kind > 2 && isList) {
        const bool hasList = property == canon::kPropColorTemperature ||
                             property == canon::kPropWhiteBalance || property == canon::kPropTv ||
                             property == canon::kPropAv || property == canon::kPropISOSpeed;
        check(hostCalls().size() == (hasList ? 1U : 0U), "a setting with a list is reported");
    }
    g_szLastFile.take();
}

}  // namespace

// The road into Python ends here.
PyCallback::PyCallback() = default;
PyCallback::~PyCallback() = default;

void PyCallback::Call(const char* format, ...)
{
    HostCall call;
    va_list values;
    va_start(values, format);
    call.type = va_arg(values, int);
    for (const char* letter = format + 1; *letter != '\0'; ++letter) {
        if (*letter == 'i') {
            call.number = va_arg(values, int);
        } else {
            check(*letter == 's', "numbers and texts are sent");
            call.text = va_arg(values, const char*);
        }
    }
    va_end(values);
    hostCalls().push_back(call);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool logs = (fuzz::switchDebugLogOn(), true);
    check(logs, "the log is on");
    Input input(data, size);
    switch (input.below(4)) {
        case 0:
            fuzzList(input);
            break;
        case 1:
            fuzzPicture(input);
            break;
        default:
            fuzzCanon(input);
    }
    return 0;
}
