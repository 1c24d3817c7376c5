#include "canon/Tables.h"

#include <array>
#include <cmath>
#include <cstdlib>

#include "canon/Codes.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

constexpr std::int32_t kOneSecond = 0x38;
constexpr std::int32_t kApertureOne = 0x08;
constexpr std::int32_t kIso100 = 0x48;

struct Name {
    std::uint32_t code;
    const char* text;
};

// The steps are written as 0, 3, 4 and 5 eighths, but mean no, a third, half and two thirds.
double stopsBetween(std::uint32_t code, std::int32_t origin)
{
    const std::int32_t distance = static_cast<std::int32_t>(code) - origin;
    const std::int32_t whole = distance >> 3;
    switch (distance & 7) {
        case 3:
            return whole + 1.0 / 3;
        case 5:
            return whole + 2.0 / 3;
        default:
            return whole + (distance & 7) / 8.0;
    }
}

template <std::size_t Count>
std::string nameOf(const std::array<Name, Count>& names, std::uint32_t code)
{
    for (const Name& name : names) {
        if (name.code == code) {
            return name.text;
        }
    }
    return virtualcamera::hexadecimal(code);
}

// What is engraved on cameras differs from the computed numbers.
constexpr std::array<Name, 75> kShutterNames{{
    {0x00, "Auto"},   {0x0C, "Bulb"},   {0x10, "30"},     {0x13, "25"},     {0x14, "20"},
    {0x15, "20"},     {0x18, "15"},     {0x1B, "13"},     {0x1C, "10"},     {0x1D, "10"},
    {0x20, "8"},      {0x23, "6"},      {0x24, "6"},      {0x25, "5"},      {0x28, "4"},
    {0x2B, "3.2"},    {0x2C, "3"},      {0x2D, "2.5"},    {0x30, "2"},      {0x33, "1.6"},
    {0x34, "1.5"},    {0x35, "1.3"},    {0x38, "1"},      {0x3B, "0.8"},    {0x3C, "0.7"},
    {0x3D, "0.6"},    {0x40, "0.5"},    {0x43, "0.4"},    {0x44, "0.3"},    {0x45, "0.3"},
    {0x48, "1/4"},    {0x4B, "1/5"},    {0x4C, "1/6"},    {0x4D, "1/6"},    {0x50, "1/8"},
    {0x53, "1/10"},   {0x54, "1/10"},   {0x55, "1/13"},   {0x58, "1/15"},   {0x5B, "1/20"},
    {0x5C, "1/20"},   {0x5D, "1/25"},   {0x60, "1/30"},   {0x63, "1/40"},   {0x64, "1/45"},
    {0x65, "1/50"},   {0x68, "1/60"},   {0x6B, "1/80"},   {0x6C, "1/90"},   {0x6D, "1/100"},
    {0x70, "1/125"},  {0x73, "1/160"},  {0x74, "1/180"},  {0x75, "1/200"},  {0x78, "1/250"},
    {0x7B, "1/320"},  {0x7C, "1/350"},  {0x7D, "1/400"},  {0x80, "1/500"},  {0x83, "1/640"},
    {0x84, "1/750"},  {0x85, "1/800"},  {0x88, "1/1000"}, {0x8B, "1/1250"}, {0x8C, "1/1500"},
    {0x8D, "1/1600"}, {0x90, "1/2000"}, {0x93, "1/2500"}, {0x94, "1/3000"}, {0x95, "1/3200"},
    {0x98, "1/4000"}, {0x9B, "1/5000"}, {0x9C, "1/6000"}, {0x9D, "1/6400"}, {0xA0, "1/8000"},
}};

constexpr std::array<Name, 53> kApertureNames{{
    {0x08, "1"},   {0x0B, "1.1"}, {0x0C, "1.2"}, {0x0D, "1.2"}, {0x10, "1.4"}, {0x13, "1.6"},
    {0x14, "1.8"}, {0x15, "1.8"}, {0x18, "2"},   {0x1B, "2.2"}, {0x1C, "2.5"}, {0x1D, "2.5"},
    {0x20, "2.8"}, {0x23, "3.2"}, {0x24, "3.5"}, {0x25, "3.5"}, {0x28, "4"},   {0x2B, "4.5"},
    {0x2C, "4.5"}, {0x2D, "5.0"}, {0x30, "5.6"}, {0x33, "6.3"}, {0x34, "6.7"}, {0x35, "7.1"},
    {0x38, "8"},   {0x3B, "9"},   {0x3C, "9.5"}, {0x3D, "10"},  {0x40, "11"},  {0x43, "13"},
    {0x44, "13"},  {0x45, "14"},  {0x48, "16"},  {0x4B, "18"},  {0x4C, "19"},  {0x4D, "20"},
    {0x50, "22"},  {0x53, "25"},  {0x54, "27"},  {0x55, "29"},  {0x58, "32"},  {0x5B, "36"},
    {0x5C, "38"},  {0x5D, "40"},  {0x60, "45"},  {0x63, "51"},  {0x64, "54"},  {0x65, "57"},
    {0x68, "64"},  {0x6B, "72"},  {0x6C, "76"},  {0x6D, "80"},  {0x70, "91"},
}};

constexpr std::array<Name, 36> kIsoNames{{
    {0x00, "Auto"},   {0x28, "6"},     {0x30, "12"},    {0x38, "25"},     {0x40, "50"},
    {0x48, "100"},    {0x4B, "125"},   {0x4D, "160"},   {0x50, "200"},    {0x53, "250"},
    {0x55, "320"},    {0x58, "400"},   {0x5B, "500"},   {0x5D, "640"},    {0x60, "800"},
    {0x63, "1000"},   {0x65, "1250"},  {0x68, "1600"},  {0x6B, "2000"},   {0x6D, "2500"},
    {0x70, "3200"},   {0x73, "4000"},  {0x75, "5000"},  {0x78, "6400"},   {0x7B, "8000"},
    {0x7D, "10000"},  {0x80, "12800"}, {0x83, "16000"}, {0x85, "20000"},  {0x88, "25600"},
    {0x8B, "32000"},  {0x8D, "40000"}, {0x90, "51200"}, {0x98, "102400"}, {0xA0, "204800"},
    {0xA8, "409600"},
}};

constexpr std::array<Name, 18> kWhiteBalanceNames{{
    {0x00, "Auto"},
    {0x01, "Daylight"},
    {0x02, "Cloudy"},
    {0x03, "Tungsten"},
    {0x04, "Fluorescent"},
    {0x05, "Flash"},
    {0x06, "Manual"},
    {0x08, "Shade"},
    {0x09, "Color temperature"},
    {0x0A, "PC-1"},
    {0x0B, "PC-2"},
    {0x0C, "PC-3"},
    {0x0F, "Manual 2"},
    {0x10, "Manual 3"},
    {0x12, "Manual 4"},
    {0x13, "Manual 5"},
    {0x14, "PC-4"},
    {0x15, "PC-5"},
}};

constexpr std::array<Name, 9> kModeNames{{
    {mode::kProgram, "P"},
    {mode::kTv, "Tv"},
    {mode::kAv, "Av"},
    {mode::kManual, "M"},
    {mode::kBulb, "Bulb"},
    {mode::kCustom1, "C1"},
    {mode::kCustom2, "C2"},
    {mode::kCustom3, "C3"},
    {0x09, "Auto"},
}};

Values asValues(std::initializer_list<std::uint32_t> codes)
{
    Values values;
    for (const std::uint32_t code : codes) {
        values.push_back(static_cast<std::int32_t>(code));
    }
    return values;
}

bool isJpeg(std::uint32_t format)
{
    return format == 0x10 || format == 0x12 || format == 0x13 || format == 0x1F;
}

double scaleOf(std::uint32_t size)
{
    switch (size) {
        case 0x1:
            return 0.75;
        case 0x2:
        case 0xE:
            return 0.5;
        case 0x5:
            return 0.8;
        case 0x6:
            return 0.6;
        case 0xF:
            return 0.25;
        case 0x10:
            return 0.125;
        default:
            return 1;
    }
}

}  // namespace

double shutterSeconds(std::uint32_t code)
{
    return std::exp2(-stopsBetween(code, kOneSecond));
}

double apertureNumber(std::uint32_t code)
{
    return std::exp2(stopsBetween(code, kApertureOne) / 2);
}

double isoSpeed(std::uint32_t code)
{
    return 100 * std::exp2(stopsBetween(code, kIso100));
}

double compensationStops(std::uint32_t code)
{
    const auto eighths = static_cast<std::int32_t>(code & 0xFFU);
    const std::int32_t value = eighths >= 0x80 ? eighths - 0x100 : eighths;
    const double stops = stopsBetween(static_cast<std::uint32_t>(std::abs(value)), 0);
    return value < 0 ? -stops : stops;
}

double kelvinOf(std::uint32_t whiteBalance, std::uint32_t colorTemperature)
{
    switch (whiteBalance) {
        case 0x02:
        case 0x05:
            return 6000;
        case 0x03:
            return 3200;
        case 0x04:
            return 4000;
        case 0x08:
            return 7000;
        case kWhiteBalanceTemperature:
            return std::fmin(std::fmax(colorTemperature, 1000), 40000);
        default:
            return 5200;
    }
}

std::string shutterText(std::uint32_t code)
{
    return nameOf(kShutterNames, code);
}

std::string apertureText(std::uint32_t code)
{
    return code == kUnknownValue ? "--" : nameOf(kApertureNames, code);
}

std::string isoText(std::uint32_t code)
{
    return nameOf(kIsoNames, code);
}

std::string whiteBalanceText(std::uint32_t code)
{
    return nameOf(kWhiteBalanceNames, code);
}

std::string modeText(std::uint32_t code)
{
    return nameOf(kModeNames, code);
}

Values thirds(std::int32_t first, std::int32_t last)
{
    Values values;
    for (std::int32_t code = first; code <= last; ++code) {
        if ((code & 7) == 0 || (code & 7) == 3 || (code & 7) == 5) {
            values.push_back(code);
        }
    }
    return values;
}

Values allShutterSpeeds()
{
    return thirds(0x10, 0xA0);
}

Values allSensitivities()
{
    Values values = thirds(kIso100, 0x88);
    values.insert(values.begin(), 0);
    return values;
}

Values allCompensations()
{
    Values values;
    for (std::int32_t code = -0x18; code <= 0x18; ++code) {
        const std::int32_t step = std::abs(code) & 7;
        if (step == 0 || step == 3 || step == 5) {
            values.push_back(code & 0xFF);
        }
    }
    return values;
}

Values allWhiteBalances()
{
    return {0, 1, 8, 2, 3, 4, 5, 6, 9};
}

Values allColorTemperatures()
{
    Values values;
    for (std::int32_t kelvin = 2500; kelvin <= 10000; kelvin += 100) {
        values.push_back(kelvin);
    }
    return values;
}

Values allQualities(bool olderBody)
{
    if (olderBody) {
        return asValues({0x002F000F, 0x002F001F, 0x002F051F, 0x002F061F, 0x002F021F, 0x001F000F,
                         0x051F000F, 0x061F000F, 0x021F000F});
    }
    return asValues({0x0064FF0F, 0x00640013, 0x00640113, 0x00640213, 0x00640012, 0x0013FF0F,
                     0x0012FF0F, 0x0113FF0F, 0x0112FF0F, 0x0213FF0F, 0x0212FF0F});
}

std::uint32_t nearest(const Values& list, double wanted)
{
    std::int32_t best = list.front();
    double smallest = -1;
    for (const std::int32_t code : list) {
        const double distance =
            std::fabs(stopsBetween(static_cast<std::uint32_t>(code), 0) - wanted);
        if (smallest < 0 || distance < smallest) {
            smallest = distance;
            best = code;
        }
    }
    return static_cast<std::uint32_t>(best);
}

QualityParts qualityParts(std::uint32_t code)
{
    const std::uint32_t first = code >> 16U;
    const std::uint32_t second = code & 0xFFFFU;
    const std::uint32_t firstFormat = first & 0xFFU;
    const std::uint32_t secondFormat = second & 0xFFU;

    QualityParts parts;
    parts.hasRaw = firstFormat == 0x64 || firstFormat == 0x24 || firstFormat == 0x2F;
    const std::uint32_t jpeg = parts.hasRaw ? second : first;
    parts.hasJpeg = !parts.hasRaw || isJpeg(secondFormat);
    if (parts.hasJpeg) {
        parts.jpegScale = scaleOf(jpeg >> 8U);
        parts.jpegQuality = (jpeg & 0xFFU) == 0x13 ? 90 : 80;
    }
    parts.text = !parts.hasRaw ? "JPEG" : parts.hasJpeg ? "RAW+JPEG" : "RAW";
    return parts;
}

}  // namespace virtualcanon
