#include "canon/Body.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "canon/Codes.h"

namespace virtualcanon {

namespace {

constexpr int kDefocusLimit = 40;

bool contains(const Values& list, std::uint32_t value)
{
    return std::find(list.begin(), list.end(), static_cast<std::int32_t>(value)) != list.end();
}

bool isAnyOf(std::uint32_t value, std::initializer_list<std::uint32_t> others)
{
    return std::find(others.begin(), others.end(), value) != others.end();
}

}  // namespace

Bytes bytesOf(std::uint32_t value)
{
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

Bytes bytesOf(const std::vector<std::int32_t>& values)
{
    Bytes bytes(values.size() * sizeof(std::int32_t));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

std::uint32_t numberOf(const Bytes& value)
{
    std::uint32_t number = 0;
    if (!value.empty()) {
        std::memcpy(&number, value.data(), std::min(value.size(), sizeof number));
    }
    return number;
}

Body::Body(int number, Bytes name, std::uint32_t subType)
    : portName("virtual:" + std::to_string(number)),
      m_number(number),
      m_name(std::move(name)),
      m_subType(subType)
{
    makeFactory();
}

void Body::put(std::uint32_t id, std::uint32_t value)
{
    Property& entry = m_properties[id];
    entry.type = type::kNumber;
    entry.value = bytesOf(value);
}

void Body::makeFactory()
{
    namespace p = property;
    setName(m_name);
    put(p::kSaveTo, 1);
    put(p::kQuality, m_subType == 0 ? 0x001F000F : 0x0013FF0F);
    put(p::kWhiteBalance, 0);
    put(p::kColorTemperature, 5200);
    put(p::kIso, 0x58);
    put(p::kMetering, 3);
    put(p::kAv, m_chosenAv);
    put(p::kTv, m_chosenTv);
    put(p::kCompensation, 0);
    put(p::kMode, mode::kManual);
    put(p::kEvfOutput, 0);
    put(p::kEvfMode, 0);
    put(p::kEvfDepthOfField, 0);
    put(p::kEvfZoom, 1);
    put(p::kEvfAfMode, 0);
    m_properties[p::kEvfZoomPosition].type = type::kPoint;
    m_properties[p::kEvfZoomPosition].value = bytesOf({2188, 1459});
    m_properties[p::kFocusInfo].type = type::kFocusInfo;
    m_properties[p::kFocusInfo].value = Bytes(kFocusInfoSize);
    const std::array<std::int32_t, 6> frame{0, 0, kSensorWidth, kSensorHeight, 9, 1};
    std::memcpy(m_properties[p::kFocusInfo].value.data(), frame.data(), sizeof frame);
}

Changes Body::setName(const Bytes& name)
{
    m_name = name;
    Bytes text = name;
    if (text.size() < 256) {
        text.push_back(0);
    }
    return set(property::kProductName, text, type::kText);
}

Property* Body::find(std::uint32_t id)
{
    const auto found = m_properties.find(id);
    return found == m_properties.end() ? nullptr : &found->second;
}

const Property* Body::find(std::uint32_t id) const
{
    const auto found = m_properties.find(id);
    return found == m_properties.end() ? nullptr : &found->second;
}

std::uint32_t Body::value(std::uint32_t id) const
{
    const Property* entry = find(id);
    return entry == nullptr ? 0 : numberOf(entry->value);
}

std::vector<std::uint32_t> Body::ids() const
{
    std::vector<std::uint32_t> all;
    for (const auto& entry : m_properties) {
        all.push_back(entry.first);
    }
    return all;
}

bool Body::hasList(std::uint32_t id) const
{
    return m_givenLists.count(id) != 0 || (find(id) != nullptr && ownList(id).has_value());
}

Values Body::allowed(std::uint32_t id) const
{
    const auto given = m_givenLists.find(id);
    return given != m_givenLists.end() ? given->second : ownList(id).value_or(Values{});
}

bool Body::isAutomatic() const
{
    return !isAnyOf(value(property::kMode),
                    {mode::kProgram, mode::kTv, mode::kAv, mode::kManual, mode::kBulb,
                     mode::kCustom1, mode::kCustom2, mode::kCustom3});
}

// True when the camera itself chooses the value in this mode.
bool Body::isMetered(std::uint32_t id) const
{
    const std::uint32_t dial = value(property::kMode);
    const bool all = isAutomatic() || dial == mode::kProgram;
    return id == property::kTv ? all || dial == mode::kAv : all || dial == mode::kTv;
}

Values Body::apertures() const
{
    switch (m_lens) {
        case Lens::kZoom:
            return thirds(0x20, 0x50);
        case Lens::kPrime:
            return thirds(0x10, 0x48);
        default:
            return {};
    }
}

std::optional<Values> Body::ownList(std::uint32_t id) const
{
    namespace p = property;
    const std::uint32_t dial = value(p::kMode);
    switch (id) {
        case p::kSaveTo:
            return Values{1, 2, 3};
        case p::kQuality:
            return allQualities(m_subType == 0);
        case p::kWhiteBalance:
            return isAutomatic() ? Values{0} : allWhiteBalances();
        case p::kColorTemperature:
            return value(p::kWhiteBalance) == kWhiteBalanceTemperature ? allColorTemperatures()
                                                                       : Values{};
        case p::kIso:
            return isAutomatic() ? Values{0} : allSensitivities();
        case p::kMetering:
            return isAutomatic() ? Values{} : Values{3, 4, 1, 5};
        case p::kAv:
            return isMetered(id) ? Values{} : apertures();
        case p::kTv:
            if (dial == mode::kBulb) {
                return Values{static_cast<std::int32_t>(kTvBulb)};
            }
            return isMetered(id) ? Values{} : allShutterSpeeds();
        case p::kCompensation:
            return isMetered(p::kTv) != isMetered(p::kAv) || dial == mode::kProgram
                       ? allCompensations()
                       : Values{};
        case p::kMode:
            return m_isDialLocked ? Values{} : Values{0, 1, 2, 3, 4};
        case p::kEvfOutput:
            return Values{0, 1, 2, 3};
        case p::kEvfMode:
        case p::kEvfDepthOfField:
            return Values{0, 1};
        case p::kEvfZoom:
            return Values{1, 5, 10};
        case p::kEvfAfMode:
            return Values{0, 1, 2};
        default:
            return std::nullopt;
    }
}

std::uint32_t Body::check(std::uint32_t id, const Bytes& value) const
{
    const Property* entry = find(id);
    if (entry == nullptr || id == property::kProductName || id == property::kFocusInfo) {
        return result::kPropertyUnavailable;
    }
    if (value.size() != entry->value.size() && entry->type != type::kText) {
        return result::kInvalidLength;
    }
    if (id == property::kEvfOutput && (numberOf(value) & kEvfToHost) != 0 &&
        this->value(property::kEvfMode) == 0) {
        return result::kPropertyUnavailable;
    }
    if (!hasList(id)) {
        return result::kOk;
    }
    const Values list = allowed(id);
    if (list.empty()) {
        return result::kPropertyUnavailable;
    }
    return contains(list, numberOf(value)) ? result::kOk : result::kInvalidParameter;
}

Changes Body::set(std::uint32_t id, const Bytes& value, std::optional<std::uint32_t> newType)
{
    const Snapshot before = snapshot();
    const bool isNew = find(id) == nullptr;
    Property& entry = m_properties[id];
    entry.value = value;
    if (newType || isNew) {
        entry.type = newType.value_or(type::kNumber);
    }
    settle(id);
    return changesSince(before);
}

Changes Body::set(std::uint32_t id, std::uint32_t value)
{
    return set(id, bytesOf(value));
}

Changes Body::setAllowed(std::uint32_t id, const std::optional<Values>& values)
{
    m_givenLists.erase(id);
    if (values) {
        m_givenLists[id] = *values;
    }
    Changes changes;
    changes.lists.push_back(id);
    return changes;
}

Changes Body::setLens(Lens lens)
{
    const Snapshot before = snapshot();
    m_lens = lens;
    settle(0);
    return changesSince(before);
}

Changes Body::setDialLocked(bool isLocked)
{
    const Snapshot before = snapshot();
    m_isDialLocked = isLocked;
    return changesSince(before);
}

// What follows from a change; the setting that was just changed stays as it was set.
void Body::settle(std::uint32_t except)
{
    switch (except) {
        case property::kTv:
            m_chosenTv = value(except) == kTvBulb ? m_chosenTv : value(except);
            meter(except);
            break;
        case property::kAv:
            m_chosenAv = value(except);
            meter(except);
            break;
        case property::kIso:
        case property::kCompensation:
            meter(except);
            break;
        case property::kMode:
        case 0:
            settleMode();
            break;
        case property::kEvfZoomPosition:
            clampZoomPosition();
            break;
        default:
            break;
    }
}

void Body::settleMode()
{
    if (find(property::kMode) == nullptr || find(property::kAv) == nullptr) {
        return;
    }
    if (isAutomatic()) {
        put(property::kIso, 0);
        put(property::kWhiteBalance, 0);
    }
    if (!isMetered(property::kTv)) {
        put(property::kTv, isBulb() ? kTvBulb : m_chosenTv);
    }
    const Values offered = apertures();
    if (offered.empty()) {
        put(property::kAv, kUnknownValue);
    } else if (!isMetered(property::kAv)) {
        const auto wanted =
            std::clamp(static_cast<std::int32_t>(m_chosenAv), offered.front(), offered.back());
        put(property::kAv, static_cast<std::uint32_t>(wanted));
    }
    meter(0);
}

double Body::isoUsed() const
{
    const std::uint32_t code = value(property::kIso);
    return code == 0 || code > 0xB0 ? 400 : isoSpeed(code);
}

scene::Light Body::light() const
{
    return {m_light, isoUsed(), compensationStops(value(property::kCompensation))};
}

// Chooses what the camera chooses itself; codes count eighths of a stop.
void Body::meter(std::uint32_t except)
{
    const Values offered = apertures();
    scene::Metered aperture;
    aperture.stops = [&] {
        const double number = apertureNumber(value(property::kAv));
        return offered.empty() ? 5 : scene::stopsOfAperture(number);
    };
    if (isMetered(property::kAv) && except != property::kAv && !offered.empty()) {
        aperture.choose = [&](double stops) {
            put(property::kAv, nearest(offered, 0x08 / 8.0 + stops));
        };
    }
    scene::Metered shutter;
    shutter.stops = [&] { return scene::stopsOfShutter(shutterSeconds(value(property::kTv))); };
    if (isMetered(property::kTv) && except != property::kTv) {
        shutter.choose = [&](double stops) {
            put(property::kTv, nearest(allShutterSpeeds(), 0x38 / 8.0 + stops));
        };
    }
    scene::meter(light().wanted(), aperture, shutter);
}

void Body::clampZoomPosition()
{
    Property* entry = find(property::kEvfZoomPosition);
    if (entry == nullptr || entry->value.size() != sizeof(std::int32_t) * 2) {
        return;
    }
    std::array<std::int32_t, 2> point{};
    std::memcpy(point.data(), entry->value.data(), sizeof point);
    point[0] = std::clamp(point[0], 0, kSensorWidth - kSensorWidth / kZoomPart);
    point[1] = std::clamp(point[1], 0, kSensorHeight - kSensorHeight / kZoomPart);
    entry->value = bytesOf({point[0], point[1]});
}

double Body::exposureSeconds() const
{
    const std::uint32_t code = value(property::kTv);
    return code == 0 || code > 0xA8 ? 0.01 : shutterSeconds(code);
}

scene::PictureFacts Body::facts(std::int64_t time) const
{
    namespace p = property;
    scene::PictureFacts facts;
    facts.make = "Virtual Canon";
    facts.model = printableName();
    facts.time = time;
    facts.shot = shots;
    facts.mode = modeText(value(p::kMode));
    facts.shutter = shutterText(value(p::kTv));
    facts.aperture = apertureText(value(p::kAv));
    facts.sensitivity = isoText(value(p::kIso));
    facts.whiteBalance = whiteBalanceText(value(p::kWhiteBalance));
    facts.kelvin = kelvinOf(value(p::kWhiteBalance), value(p::kColorTemperature));
    facts.compensation = compensationStops(value(p::kCompensation));
    facts.shutterSeconds = scene::numberIn(facts.shutter, exposureSeconds());
    const std::uint32_t av = value(p::kAv);
    const double aperture = av == 0 || av > 0x80 ? 5.6 : apertureNumber(av);
    facts.apertureNumber = scene::numberIn(facts.aperture, aperture);
    facts.iso = static_cast<int>(std::lround(isoUsed()));

    // In bulb mode the shutter stays open as long as a well exposed picture takes.
    facts.stops = isBulb() ? 0 : light().stopsOver(aperture, exposureSeconds());
    facts.defocus = std::abs(m_defocus);

    switch (value(p::kMode)) {
        case mode::kTv:
            facts.exposureProgram = 4;
            break;
        case mode::kAv:
            facts.exposureProgram = 3;
            break;
        default:
            facts.exposureProgram = isMetered(p::kTv) ? 2 : 1;
    }
    switch (value(p::kMetering)) {
        case 1:
            facts.meteringMode = 3;
            break;
        case 4:
            facts.meteringMode = 6;
            break;
        case 5:
            facts.meteringMode = 2;
            break;
        default:
            facts.meteringMode = 5;
    }
    return facts;
}

bool Body::driveLens(std::uint32_t code)
{
    const auto size = static_cast<int>(code & 0xFU);
    const bool isFar = (code & 0x8000U) != 0;
    if (size < 1 || size > 3 || (code & ~0x8003U) != 0) {
        return false;
    }
    const int step = 1 << (2 * (size - 1));
    m_defocus = std::clamp(m_defocus + (isFar ? step : -step), -kDefocusLimit, kDefocusLimit);
    return true;
}

Body::Snapshot Body::snapshot() const
{
    Snapshot all;
    for (const auto& [id, entry] : m_properties) {
        all[id] = {entry.value, allowed(id)};
    }
    return all;
}

Changes Body::changesSince(const Snapshot& before) const
{
    Changes changes;
    for (const auto& [id, entry] : m_properties) {
        const auto old = before.find(id);
        if (old == before.end() || old->second.first != entry.value) {
            changes.values.push_back(id);
        }
        if (old == before.end() ? hasList(id) : old->second.second != allowed(id)) {
            changes.lists.push_back(id);
        }
    }
    return changes;
}

}  // namespace virtualcanon
