#include "canon/CanonTables.h"

namespace canon {

namespace {

// The texts are kept letter for letter, odd spellings included: hosts compare and store them.

// Exposure modes.
CodeTexts exposureModes()
{
    return {
        {0x00, "P"},
        {0x01, "Tv"},
        {0x02, "Av"},
        {0x03, "M"},
        {0x04, "Bulb"},
        {0x05, "A-DEP"},
        {0x06, "DEP"},
        {0x07, "C1"},
        {0x08, "Lock"},
        {0x09, "Auto"},
        {0x0A, "Night Portrait"},
        {0x0B, "Sports"},
        {0x0C, "Portrait"},
        {0x0D, "LandScape"},
        {0x0E, "Close Up"},
        {0x0F, "No Strobo"},
        {0x10, "C2"},
        {0x11, "C3"},
        {0x13, "Creative Auto"},
        {0x14, "Movies"},
        {0x16, "Auto"},
        {0x17, "Night Scenes"},
        {0x18, "Backlit Scenes"},
        {0x19, "SCN"},
        {0x1A, "Children"},
        {0x1B, "Food"},
        {0x1C, "Candlelight Portraits"},
        {0x1D, "Creative filters"},
        {0x1E, "Grainy B/W"},
        {0x1F, "Soft focus"},
        {0x20, "Toy camera effect"},
        {0x21, "Fish-eye effect"},
        {0x22, "Water painting effect"},
        {0x23, "Miniature effect"},
        {0x24, "HDR art standard"},
        {0x25, "HDR art vivid"},
        {0x26, "HDR art bold"},
        {0x27, "HDR art embossed"},
        {0x28, "Dream"},
        {0x29, "Old Movies"},
        {0x2A, "Memory"},
        {0x2B, "Dramatic B&W"},
        {0x2C, "Miniature effect movie"},
        {0x2E, "Group Photo"},
        {0xFFFFFFFF, "unknown"},
    };
}

// Shutter speeds in seconds; from 1/4 on as fractions.
CodeTexts shutterSpeeds()
{
    return {
        {0x00, "Auto"},   {0x0C, "Bulb"},   {0x10, "30"},     {0x13, "25"},
        {0x14, "20"},     {0x15, "20"},     {0x18, "15"},     {0x1B, "13"},
        {0x1C, "10"},     {0x1D, "10"},     {0x20, "8"},      {0x23, "6"},
        {0x24, "6"},      {0x25, "5"},      {0x28, "4"},      {0x2B, "3.2"},
        {0x2C, "3"},      {0x2D, "2.5"},    {0x30, "2"},      {0x33, "1.6"},
        {0x34, "1.5"},    {0x35, "1.3"},    {0x38, "1"},      {0x3B, "0.8"},
        {0x3C, "0.7"},    {0x3D, "0.6"},    {0x40, "0.5"},    {0x43, "0.4"},
        {0x44, "0.3"},    {0x45, "0.3"},    {0x48, "1/4"},    {0x4B, "1/5"},
        {0x4C, "1/6"},    {0x4D, "1/6"},    {0x50, "1/8"},    {0x53, "1/10"},
        {0x54, "1/10"},   {0x55, "1/13"},   {0x58, "1/15"},   {0x5B, "1/20"},
        {0x5C, "1/20"},   {0x5D, "1/25"},   {0x60, "1/30"},   {0x63, "1/40"},
        {0x64, "1/45"},   {0x65, "1/50"},   {0x68, "1/60"},   {0x6B, "1/80"},
        {0x6C, "1/90"},   {0x6D, "1/100"},  {0x70, "1/125"},  {0x73, "1/160"},
        {0x74, "1/180"},  {0x75, "1/200"},  {0x78, "1/250"},  {0x7B, "1/320"},
        {0x7C, "1/350"},  {0x7D, "1/400"},  {0x80, "1/500"},  {0x83, "1/640"},
        {0x84, "1/750"},  {0x85, "1/800"},  {0x88, "1/1000"}, {0x8B, "1/1250"},
        {0x8C, "1/1500"}, {0x8D, "1/1600"}, {0x90, "1/2000"}, {0x93, "1/2500"},
        {0x94, "1/3000"}, {0x95, "1/3200"}, {0x98, "1/4000"}, {0x9B, "1/5000"},
        {0x9C, "1/6000"}, {0x9D, "1/6400"}, {0xA0, "1/8000"}, {0xFFFFFFFF, "unknown"},
    };
}

// Apertures as bare f-numbers.
CodeTexts apertures()
{
    return {
        {0x00, "Auto"}, {0x08, "1"},   {0x0B, "1.1"}, {0x0C, "1.2"}, {0x0D, "1.2"},
        {0x10, "1.4"},  {0x13, "1.6"}, {0x14, "1.8"}, {0x15, "1.8"}, {0x18, "2"},
        {0x1B, "2.2"},  {0x1C, "2.5"}, {0x1D, "2.5"}, {0x20, "2.8"}, {0x23, "3.2"},
        {0x24, "3.5"},  {0x25, "3.5"}, {0x28, "4"},   {0x2B, "4.5"}, {0x2C, "4.5"},
        {0x2D, "5.0"},  {0x30, "5.6"}, {0x33, "6.3"}, {0x34, "6.7"}, {0x35, "7.1"},
        {0x38, "8"},    {0x3B, "9"},   {0x3C, "9.5"}, {0x3D, "10"},  {0x40, "11"},
        {0x43, "13"},   {0x44, "13"},  {0x45, "14"},  {0x48, "16"},  {0x4B, "18"},
        {0x4C, "19"},   {0x4D, "20"},  {0x50, "22"},  {0x53, "25"},  {0x54, "27"},
        {0x55, "29"},   {0x58, "32"},  {0x5B, "36"},  {0x5C, "38"},  {0x5D, "40"},
        {0x60, "45"},   {0x63, "51"},  {0x64, "54"},  {0x65, "57"},  {0x68, "64"},
        {0x6B, "72"},   {0x6C, "76"},  {0x6D, "80"},  {0x70, "91"},  {0xFFFFFFFF, "unknown"},
    };
}

// ISO speeds.
CodeTexts isoSpeeds()
{
    return {
        {0x00, "Auto"},
        {0x28, "6"},
        {0x30, "12"},
        {0x38, "25"},
        {0x40, "50"},
        {0x48, "100"},
        {0x4B, "125"},
        {0x4D, "160"},
        {0x50, "200"},
        {0x53, "250"},
        {0x55, "320"},
        {0x58, "400"},
        {0x5B, "500"},
        {0x5D, "640"},
        {0x60, "800"},
        {0x63, "1000"},
        {0x65, "1250"},
        {0x68, "1600"},
        {0x6B, "2000"},
        {0x6D, "2500"},
        {0x70, "3200"},
        {0x73, "4000"},
        {0x75, "5000"},
        {0x78, "6400"},
        {0x7B, "8000"},
        {0x7D, "10000"},
        {0x80, "12800"},
        {0x83, "16000"},
        {0x85, "20000"},
        {0x88, "25600"},
        {0x8B, "32000"},
        {0x8D, "40000"},
        {0x90, "51200"},
        {0x98, "102400"},
        {0xA0, "204800"},
        {0xA8, "409600"},
        {0xFFFFFFFF, "unknown"},
    };
}

// White balances.
CodeTexts whiteBalances()
{
    return {
        {0x00, "Auto"},
        {0x01, "Daylight"},
        {0x02, "Cloudy"},
        {0x03, "Tungsten"},
        {0x04, "Fluorescent"},
        {0x05, "Flash"},
        {0x06, "Manual"},
        {0x08, "Shade"},
        {0x09, "Color temperature"},
        {0x0A, "Custom white balance: PC-1"},
        {0x0B, "Custom white balance: PC-2"},
        {0x0C, "Custom white balance: PC-3"},
        {0x0F, "Manual 2"},
        {0x10, "Manual 3"},
        {0x12, "Manual 4"},
        {0x13, "Manual 5"},
        {0x14, "Custom white balance: PC-4"},
        {0x15, "Custom white balance: PC-5"},
    };
}

// Image qualities: the packed values of three generations of bodies.
CodeTexts imageQualities()
{
    return {
        {0x0064FF0F, "RAW"},
        {0x00640013, "RAW + Large Fine Jpeg"},
        {0x00640113, "RAW + Middle Fine Jpeg"},
        {0x00640213, "RAW + Small Fine Jpeg"},
        {0x00640012, "RAW + Large Normal Jpeg"},
        {0x00640112, "RAW + Middle Normal Jpeg"},
        {0x00640212, "RAW + Small Normal Jpeg"},
        {0x00640E13, "RAW + Small1 Fine Jpeg"},
        {0x00640E12, "RAW + Small1 Normal Jpeg"},
        {0x00640F13, "RAW + Small2 Jpeg"},
        {0x00641013, "RAW + Small3 Jpeg"},
        {0x00640010, "RAW + Large Jpeg"},
        {0x00640510, "RAW + Middle1 Jpeg"},
        {0x00640610, "RAW + Middle2 Jpeg"},
        {0x00640210, "RAW + Small Jpeg"},
        {0x0164FF0F, "Middle Raw(Small RAW1)"},
        {0x01640013, "Middle Raw(Small RAW1) + Large Fine Jpeg"},
        {0x01640113, "Middle Raw(Small RAW1) + Middle Fine Jpeg"},
        {0x01640213, "Middle Raw(Small RAW1) + Small Fine Jpeg"},
        {0x01640012, "Middle Raw(Small RAW1) + Large Normal Jpeg"},
        {0x01640112, "Middle Raw(Small RAW1) + Middle Normal Jpeg"},
        {0x01640212, "Middle Raw(Small RAW1) + Small Normal Jpeg"},
        {0x01640E13, "Middle RAW + Small1 Fine Jpeg"},
        {0x01640E12, "Middle RAW + Small1 Normal Jpeg"},
        {0x01640F13, "Middle RAW + Small2 Jpeg"},
        {0x01641013, "Middle RAW + Small3 Jpeg"},
        {0x01640010, "Middle Raw + Large Jpeg"},
        {0x01640510, "Middle Raw + Middle1 Jpeg"},
        {0x01640610, "Middle Raw + Middle2 Jpeg"},
        {0x01640210, "Middle Raw + Small Jpeg"},
        {0x0264FF0F, "Small RAW(Small RAW2)"},
        {0x02640013, "Small RAW(Small RAW2) + Large Fine Jpeg"},
        {0x02640113, "Small RAW(Small RAW2) + Middle Fine Jpeg"},
        {0x02640213, "Small RAW(Small RAW2) + Small Fine Jpeg"},
        {0x02640012, "Small RAW(Small RAW2) + Large Normal Jpeg"},
        {0x02640112, "Small RAW(Small RAW2) + Middle Normal Jpeg"},
        {0x02640212, "Small RAW(Small RAW2) + Small Normal Jpeg"},
        {0x02640E13, "Small RAW + Small1 Fine Jpeg"},
        {0x02640E12, "Small RAW + Small1 Normal Jpeg"},
        {0x02640F13, "Small RAW + Small2 Jpeg"},
        {0x02641013, "Small RAW + Small3 Jpeg"},
        {0x02640010, "Small RAW + Large Jpeg"},
        {0x02640510, "Small RAW + Middle1 Jpeg"},
        {0x02640610, "Small RAW + Middle2 Jpeg"},
        {0x02640210, "Small RAW + Small Jpeg"},
        {0x0013FF0F, "Large Fine Jpeg"},
        {0x0012FF0F, "Large Normal Jpeg"},
        {0x0113FF0F, "Middle Fine Jpeg"},
        {0x0112FF0F, "Middle Normal Jpeg"},
        {0x0213FF0F, "Small Fine Jpeg"},
        {0x0212FF0F, "Small Normal Jpeg"},
        {0x0E13FF0F, "Small1 Fine Jpeg"},
        {0x0E12FF0F, "Small1 Normal Jpeg"},
        {0x0F13FF0F, "Small2 Jpeg"},
        {0x1013FF0F, "Small3 Jpeg"},
        {0x0010FF0F, "Large Jpeg"},
        {0x0510FF0F, "Middle1 Jpeg"},
        {0x0610FF0F, "Middle2 Jpeg"},
        {0x0210FF0F, "Small Jpeg"},
        {0x00240000, "RAW"},
        {0x00240013, "RAW + Large Fine Jpeg"},
        {0x00240113, "RAW + Middle Fine Jpeg"},
        {0x00240213, "RAW + Small Fine Jpeg"},
        {0x00240012, "RAW + Large Normal Jpeg"},
        {0x00240112, "RAW + Middle Normal Jpeg"},
        {0x00240212, "RAW + Small Normal Jpeg"},
        {0x00130000, "Large Fine Jpeg"},
        {0x01130000, "Middle Fine Jpeg"},
        {0x02130000, "Small Fine Jpeg"},
        {0x00120000, "Large Normal Jpeg"},
        {0x01120000, "Middle Normal Jpeg"},
        {0x02120000, "Small Normal Jpeg"},
        {0x002F000F, "RAW"},
        {0x002F001F, "RAW + Large Jpeg"},
        {0x002F051F, "RAW + Middle1 Jpeg"},
        {0x002F061F, "RAW + Middle2 Jpeg"},
        {0x002F021F, "RAW + Small Jpeg"},
        {0x001F000F, "Large Jpeg"},
        {0x051F000F, "Middle1 Jpeg"},
        {0x061F000F, "Middle2 Jpeg"},
        {0x021F000F, "Small Jpeg"},
    };
}

}  // namespace

const CanonTables& canonTables()
{
    static const CanonTables tables = {exposureModes(), shutterSpeeds(), apertures(),
                                       isoSpeeds(),     whiteBalances(), imageQualities()};
    return tables;
}

const char* findText(const CodeTexts& table, std::uint32_t code)
{
    const auto entry = table.find(code);
    return entry == table.end() ? nullptr : entry->second;
}

}  // namespace canon
