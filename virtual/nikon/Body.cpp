#include "nikon/Body.h"

#include <algorithm>
#include <cmath>

#include "common/Text.h"
#include "nikon/Codes.h"

namespace virtualnikon {

namespace {

using Texts = std::vector<std::string>;
using scene::numberIn;

constexpr std::uint32_t kReadOnly = kMaidOperationGet | kMaidOperationGetArray;
constexpr std::uint32_t kReadWrite = kReadOnly | kMaidOperationSet;
constexpr double kBulbSeconds = 1;

const Texts& speeds()
{
    static const Texts kSpeeds{"30",     "25",     "20",     "15",     "13",     "10",     "8",
                               "6",      "5",      "4",      "3",      "2.5",    "2",      "1.6",
                               "1.3",    "1",      "1/1.3",  "1/1.6",  "1/2",    "1/2.5",  "1/3",
                               "1/4",    "1/5",    "1/6",    "1/8",    "1/10",   "1/13",   "1/15",
                               "1/20",   "1/25",   "1/30",   "1/40",   "1/50",   "1/60",   "1/80",
                               "1/100",  "1/125",  "1/160",  "1/200",  "1/250",  "1/320",  "1/400",
                               "1/500",  "1/640",  "1/800",  "1/1000", "1/1250", "1/1600", "1/2000",
                               "1/2500", "1/3200", "1/4000", "1/5000", "1/6400", "1/8000"};
    return kSpeeds;
}

// Only with the dial on manual does the list begin with the open shutter.
Texts manualSpeeds()
{
    Texts texts{"Bulb"};
    texts.insert(texts.end(), speeds().begin(), speeds().end());
    return texts;
}

const Texts& apertures()
{
    static const Texts kApertures{"f/2.8", "f/3.2", "f/3.5", "f/4",  "f/4.5", "f/5",  "f/5.6",
                                  "f/6.3", "f/7.1", "f/8",   "f/9",  "f/10",  "f/11", "f/13",
                                  "f/14",  "f/16",  "f/18",  "f/20", "f/22"};
    return kApertures;
}

const Texts& sensitivities()
{
    static const Texts kSensitivities{
        "100",  "125",  "160",  "200",  "250",  "320",  "400",  "500",  "640",  "800",   "1000",
        "1250", "1600", "2000", "2500", "3200", "4000", "5000", "6400", "8000", "10000", "12800"};
    return kSensitivities;
}

struct WhiteBalance {
    const char* text;
    double kelvin;
};

constexpr WhiteBalance kWhiteBalances[] = {{"Auto", 5200},         {"Incandescent", 3000},
                                           {"Fluorescent", 4200},  {"Direct sunlight", 5200},
                                           {"Flash", 5400},        {"Cloudy", 6000},
                                           {"Shade", 8000},        {"Choose color temp.", 5000},
                                           {"Preset manual", 5200}};

Texts whiteBalances()
{
    Texts texts;
    for (const WhiteBalance& light : kWhiteBalances) {
        texts.emplace_back(light.text);
    }
    return texts;
}

double kelvinOf(const std::string& text)
{
    for (const WhiteBalance& light : kWhiteBalances) {
        if (text == light.text) {
            return light.kelvin;
        }
    }
    return 5200;
}

const Texts& qualities()
{
    static const Texts kQualities{"JPEG Basic",       "JPEG Normal",       "JPEG Fine",      "RAW",
                                  "RAW + JPEG Basic", "RAW + JPEG Normal", "RAW + JPEG Fine"};
    return kQualities;
}

std::string modeText(std::uint32_t mode)
{
    constexpr const char* kTexts[] = {"P", "A", "S", "M"};
    return mode < std::size(kTexts) ? kTexts[mode] : "AUTO";
}

int exposureProgram(std::uint32_t mode)
{
    constexpr int kPrograms[] = {2, 3, 4, 1};  // EXIF's numbers
    return mode < std::size(kPrograms) ? kPrograms[mode] : 2;
}

}  // namespace

Body::Body(int number, std::uint32_t id, std::string name)
    : m_number(number), m_id(id), m_name(std::move(name))
{
    makeFactory();
}

void Body::makeFactory()
{
    const auto put = [&](const Capability& capability) { m_table[capability.id] = capability; };
    put(makeTexts(kMaidCapImageQuality, kReadWrite, "Compression Level", qualities(), 2));
    put(makeNumbers(kMaidCapExposureMode, kReadOnly, "Exposure Mode",
                    {0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 14}, 3));
    put(makeTexts(kMaidCapShutterSpeed, kReadWrite, "Shutter Speed", {}));
    put(makeTexts(kMaidCapAperture, kReadWrite, "Aperture", {}));
    put(makeNumbers(kMaidCapMeteringMode, kReadWrite, "Metering Mode", {0, 1, 2}));
    put(makeTexts(kMaidCapSensitivity, kReadWrite, "Sensitivity", {}));
    put(makeTexts(kMaidCapWhiteBalance, kReadWrite, "White Balance Mode", whiteBalances()));
    put(makeNumber(kMaidCapLiveness, kMaidOperationGet, "Camera Type", 1));
    put(makeNumber(kMaidCapSourceSetting, kMaidOperationGet | kMaidOperationSet, "Save Media"));
    settle();
    choose(kMaidCapSensitivity, "400");
}

const Capability* Body::find(std::uint32_t id) const
{
    const auto found = m_table.find(id);
    return found == m_table.end() ? nullptr : &found->second;
}

std::vector<Capability> Body::capabilities() const
{
    std::vector<Capability> all;
    for (const auto& entry : m_table) {
        all.push_back(entry.second);
    }
    return all;
}

std::uint32_t Body::mode() const
{
    const Capability& dial = m_table.at(kMaidCapExposureMode);
    return dial.current < dial.numbers.size() ? dial.numbers[dial.current] : mode::kManual;
}

std::string Body::textOf(std::uint32_t id) const
{
    return m_table.at(id).currentText();
}

bool Body::isAutomatic() const
{
    return mode() > mode::kManual;
}

std::optional<Changes> Body::set(std::uint32_t id, std::uint32_t value)
{
    const auto found = m_table.find(id);
    if (found == m_table.end()) {
        return std::nullopt;
    }
    const Table before = m_table;
    Capability& capability = found->second;
    if (capability.elementType == 0) {
        capability.number = value;
        return changesSince(before);
    }
    if (value >= capability.choices()) {
        return std::nullopt;
    }
    capability.current = value;
    if (id == kMaidCapShutterSpeed) {
        m_chosenShutter = capability.currentText();
    } else if (id == kMaidCapAperture) {
        m_chosenAperture = capability.currentText();
    }
    settle();
    return changesSince(before);
}

Changes Body::turnDial(std::uint32_t mode)
{
    const Table before = m_table;
    Capability& dial = m_table[kMaidCapExposureMode];
    const auto found = std::find(dial.numbers.begin(), dial.numbers.end(), mode);
    dial.current = static_cast<std::uint32_t>(found - dial.numbers.begin());
    if (found == dial.numbers.end()) {
        dial.numbers.push_back(mode);
    }
    settle();
    return changesSince(before);
}

std::optional<Changes> Body::setTexts(std::uint32_t id, const std::optional<Texts>& texts)
{
    const auto found = m_table.find(id);
    if (found == m_table.end() || !found->second.isText()) {
        return std::nullopt;
    }
    const Table before = m_table;
    if (texts) {
        m_givenLists[id] = *texts;
    } else {
        m_givenLists.erase(id);
    }
    if (id == kMaidCapImageQuality || id == kMaidCapWhiteBalance) {
        relist(id, id == kMaidCapImageQuality ? qualities() : whiteBalances());
    }
    settle();
    return changesSince(before);
}

// Another list keeps the value if it offers it.
void Body::relist(std::uint32_t id, const Texts& texts)
{
    Capability& capability = m_table[id];
    const std::string text = capability.currentText();
    const auto given = m_givenLists.find(id);
    capability.texts = given == m_givenLists.end() ? texts : given->second;
    choose(id, text);
}

void Body::choose(std::uint32_t id, const std::string& text)
{
    Capability& capability = m_table[id];
    const auto found = std::find(capability.texts.begin(), capability.texts.end(), text);
    if (found != capability.texts.end()) {
        capability.current = static_cast<std::uint32_t>(found - capability.texts.begin());
    } else if (capability.current >= capability.texts.size()) {
        capability.current = 0;
    }
}

void Body::allow(std::uint32_t id, bool isSettable)
{
    m_table[id].operations = isSettable ? kReadWrite : kReadOnly;
}

void Body::settle()
{
    const std::uint32_t dial = mode();
    allow(kMaidCapShutterSpeed, dial == mode::kManual || dial == mode::kSpeed);
    allow(kMaidCapAperture, dial == mode::kManual || dial == mode::kAperture);
    for (const std::uint32_t id :
         {kMaidCapSensitivity, kMaidCapWhiteBalance, kMaidCapMeteringMode}) {
        allow(id, !isAutomatic());
    }
    relist(kMaidCapShutterSpeed, dial == mode::kManual ? manualSpeeds() : speeds());
    relist(kMaidCapAperture, apertures());
    Texts offered = sensitivities();
    if (isAutomatic()) {
        offered.insert(offered.begin(), "Auto");
    }
    relist(kMaidCapSensitivity, offered);
    meter();
}

// Takes the text whose number lies nearest to `wanted` in stops, if the list offers any.
void Body::chooseNearest(std::uint32_t id, double wanted)
{
    const Texts& texts = m_table[id].texts;
    const auto distance = [&](const std::string& text) {
        return std::abs(std::log2(numberIn(text, 1e-9) / wanted));
    };
    const auto found = std::min_element(
        texts.begin(), texts.end(),
        [&](const auto& one, const auto& other) { return distance(one) < distance(other); });
    if (found != texts.end()) {
        choose(id, *found);
    }
}

scene::Light Body::light() const
{
    return {m_light, isoUsed(), 0};
}

// What the photographer does not choose, the camera does.
void Body::meter()
{
    const std::uint32_t dial = mode();
    scene::Metered aperture;
    aperture.stops = [&] { return scene::stopsOfAperture(apertureNumber()); };
    if (dial == mode::kManual || dial == mode::kAperture) {
        choose(kMaidCapAperture, m_chosenAperture);
    } else {
        aperture.choose = [&](double stops) {
            chooseNearest(kMaidCapAperture, scene::apertureOfStops(stops));
        };
    }
    scene::Metered shutter;
    shutter.stops = [&] { return scene::stopsOfShutter(exposureSeconds()); };
    if (dial == mode::kManual || dial == mode::kSpeed) {
        choose(kMaidCapShutterSpeed, m_chosenShutter);
    } else {
        shutter.choose = [&](double stops) {
            chooseNearest(kMaidCapShutterSpeed, scene::shutterOfStops(stops));
        };
    }
    scene::meter(light().wanted(), aperture, shutter);
}

double Body::isoUsed() const
{
    return numberIn(textOf(kMaidCapSensitivity), 400);
}

double Body::apertureNumber() const
{
    return numberIn(textOf(kMaidCapAperture), 5.6);
}

double Body::exposureSeconds() const
{
    return isBulb() ? kBulbSeconds : numberIn(textOf(kMaidCapShutterSpeed), 0.01);
}

bool Body::isBulb() const
{
    return textOf(kMaidCapShutterSpeed) == "Bulb";
}

QualityParts Body::quality() const
{
    const std::string text = textOf(kMaidCapImageQuality);
    QualityParts parts;
    parts.hasRaw = text.compare(0, 3, "RAW") == 0;
    parts.hasJpeg = !parts.hasRaw || text.find("JPEG") != std::string::npos;
    if (text.find("Basic") != std::string::npos) {
        parts.jpegQuality = 60;
    } else if (text.find("Fine") != std::string::npos) {
        parts.jpegQuality = 95;
    }
    return parts;
}

scene::PictureFacts Body::facts(std::int64_t time) const
{
    scene::PictureFacts facts;
    facts.make = "Virtual Nikon";
    facts.model = m_name;
    facts.time = time;
    facts.shot = shots;
    facts.mode = modeText(mode());
    facts.shutter = textOf(kMaidCapShutterSpeed);
    facts.aperture = textOf(kMaidCapAperture).substr(0, 2) == "f/"
                         ? textOf(kMaidCapAperture).substr(2)
                         : textOf(kMaidCapAperture);
    facts.sensitivity = textOf(kMaidCapSensitivity);
    facts.whiteBalance = textOf(kMaidCapWhiteBalance);
    facts.quality = textOf(kMaidCapImageQuality);
    facts.kelvin = kelvinOf(facts.whiteBalance);
    facts.shutterSeconds = exposureSeconds();
    facts.apertureNumber = apertureNumber();
    facts.iso = static_cast<int>(std::lround(isoUsed()));
    facts.exposureProgram = exposureProgram(mode());
    const Capability& metering = m_table.at(kMaidCapMeteringMode);
    constexpr int kMetering[] = {5, 2, 3};  // EXIF: pattern, centre-weighted, spot
    facts.meteringMode = metering.current < std::size(kMetering) ? kMetering[metering.current] : 5;
    facts.stops = isBulb() ? 0 : light().stopsOver(apertureNumber(), exposureSeconds());
    return facts;
}

Changes Body::changesSince(const Table& before) const
{
    Changes changes;
    for (const auto& [id, now] : m_table) {
        const Capability& old = before.at(id);
        changes.descriptors |= old.operations != now.operations;
        if (old.number != now.number || old.current != now.current || old.texts != now.texts ||
            old.numbers != now.numbers) {
            changes.values.push_back(id);
        }
    }
    return changes;
}

}  // namespace virtualnikon
