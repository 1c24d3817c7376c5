#include "nikon/CapabilityTexts.h"

#include <cstdio>
#include <map>

#include "Maid.h"

namespace nikon {

namespace {

using Texts = std::map<std::uint32_t, const char*>;

// 4 and 11 have no text, deliberately.
const Texts& exposureModes()
{
    static const Texts texts = {
        {0, "Program"}, {1, "Aperture"},       {2, "Speed"},      {3, "Manual"},
        {5, "Auto"},    {6, "Portrait"},       {7, "Landscape"},  {8, "Closeup"},
        {9, "Sports"},  {10, "NightPortrait"}, {12, "Child"},     {13, "FlashOff"},
        {14, "SCENE"},  {15, "UserMode1"},     {16, "UserMode2"}, {17, "Effects"},
    };
    return texts;
}

const Texts& flashModes()
{
    static const Texts texts = {
        {0, "Normal"},
        {1, "Rear-sync"},
        {2, "Slow-sync"},
        {3, "Red Eye Reduction"},
        {4, "Slow-sync Red Eye Reduction"},
        {5, "SlowRear-sync"},
        {262, "flash off"},
    };
    return texts;
}

const Texts& meteringModes()
{
    static const Texts texts = {{0, "Matrix"}, {1, "CenterWeighted"}, {2, "Spot"}};
    return texts;
}

const Texts& focusModes()
{
    static const Texts texts = {{0, "MF"}, {1, "AF-S"}, {2, "AF-C"}, {3, "AF-A"}, {4, "AF-F"}};
    return texts;
}

// "Contol" is spelt so on purpose: hosts know the texts.
const Texts& pictureControls()
{
    static const Texts texts = {
        {0, "Undefined"},
        {1, "Standard"},
        {2, "Neutral"},
        {3, "Vivid"},
        {4, "Monochrome"},
        {5, "Portrait"},
        {6, "Landscape"},
        {101, "Option Picture Contol 1"},
        {102, "Option Picture Contol 2"},
        {103, "Option Picture Contol 3"},
        {104, "Option Picture Contol 4"},
        {201, "Custom Picture Contol 1"},
        {202, "Custom Picture Contol 2"},
        {203, "Custom Picture Contol 3"},
        {204, "Custom Picture Contol 4"},
        {205, "Custom Picture Contol 5"},
        {206, "Custom Picture Contol 6"},
        {207, "Custom Picture Contol 7"},
        {208, "Custom Picture Contol 8"},
        {209, "Custom Picture Contol 9"},
    };
    return texts;
}

const Texts& liveViewZoomRates()
{
    static const Texts texts = {{0, "Full"}, {1, "25%"},   {2, "33%"},
                                {3, "50%"},  {4, "66.7%"}, {5, "100%"}};
    return texts;
}

// The value's text, or one that is made of words and its number.
std::string textOr(const Texts& texts, std::uint32_t value, const char* words)
{
    const auto found = texts.find(value);
    return found != texts.end() ? found->second : words + std::to_string(value);
}

std::string hexText(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

}  // namespace

std::string CapabilityValueText(std::uint32_t capId, std::uint32_t value)
{
    switch (capId) {
        case kMaidCapExposureMode:
            return textOr(exposureModes(), value, "ExposureMode ");
        case kMaidCapFlashMode:
            return textOr(flashModes(), value, "FlashMode ");
        case kMaidCapMeteringMode:
            return textOr(meteringModes(), value, "MeteringMode ");
        case kMaidCapFocusMode:
            return textOr(focusModes(), value, "FocusMode ");
        case kMaidCapPictureControl:
            return textOr(pictureControls(), value, "Picture Control ");
        case kMaidCapLiveViewZoomRate:
            return textOr(liveViewZoomRates(), value, "LiveViewImageZoomRate ");
        case kMaidCapFocusPreferredArea:
            return "FocusPreferredArea :" + std::to_string(value);
        case kMaidCapHexNumber:
            return hexText(value);
        case kMaidCapPlainNumber:
            return std::to_string(value);
        default:
            return "Undefined String";
    }
}

}  // namespace nikon
