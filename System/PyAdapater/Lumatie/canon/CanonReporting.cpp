#include "canon/CanonReporting.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "DebugLog.h"
#include "EdSdkCodes.h"
#include "EventReceiver.h"
#include "PyCallback.h"
#include "TetherEvents.h"
#include "TetherTexts.h"
#include "canon/CameraModel.h"
#include "canon/CanonTables.h"
#include "canon/PropertyData.h"
#include "canon/Roomy.h"

namespace canon {

namespace {

// The library fills nine bytes when nine are asked for; the value is in the first four.
constexpr std::uint32_t kDirectReadSize = 9;

void sendGeneral(PyCallback& callback, const std::string& text)
{
    DebugLog("CANON TETHER_GENERAL=%s", text.c_str());
    callback.Call("is", TETHER_GENERAL, text.c_str());
}

// Sends a setting by its text; `logFormat` takes the text.
void sendText(PyCallback& callback, TetherType type, const char* logFormat, const char* text)
{
    if (text == nullptr) {
        return;
    }
    DebugLog(logFormat, text);
    callback.Call("is", type, text);
}

// Sends a setting by its code, as a signed number, and text; `logFormat` takes both.
void sendCode(PyCallback& callback, TetherType type, const char* logFormat, const CodeTexts& table,
              std::uint32_t code)
{
    const char* text = findText(table, code);
    if (text == nullptr) {
        return;
    }
    const auto key = static_cast<std::int32_t>(code);
    DebugLog(logFormat, key, text);
    callback.Call("iis", type, key, text);
}

// Reads a setting that the model does not keep. A failed read leaves what the library left: 0
// unless it wrote something.
std::uint32_t readDirectly(const CameraModel& model, EdsPropertyID property)
{
    PropertyData data;
    data.read(model.camera, property, kDirectReadSize);
    return data.as<std::uint32_t>();
}

void reportColorTemperature(PyCallback& callback, const CameraModel& model)
{
    const auto value = static_cast<std::int32_t>(readDirectly(model, kPropColorTemperature));
    DebugLog("CANON TETHER_COLORTEMP value=%d", value);
    callback.Call("ii", TETHER_COLORTEMP, value);
}

void reportImageQuality(PyCallback& callback, const CameraModel& model)
{
    EdsDataType type = 0;
    std::uint32_t size = 0;
    PropertyData data;
    if (EdsGetPropertySize(model.camera, kPropImageQuality, 0, &type, &size) != kOk ||
        data.read(model.camera, kPropImageQuality, size) != kOk) {
        return;
    }
    sendText(callback, TETHER_IMAGEQUALITY, "CANON TETHER_IMAGEQUALITY=%s",
             findText(canonTables().m_mapQuality, data.as<std::uint32_t>()));
}

void reportProperty(PyCallback& callback, const CameraModel& model, EdsPropertyID property)
{
    const CanonTables& tables = canonTables();
    switch (property) {
        case kPropAEMode:
            sendText(callback, TETHER_EXPOSUREMODE, "CANON TETHER_EXPOSUREMODE=%s",
                     findText(tables.m_mapAEMode, model.AEMode));
            break;
        case kPropTv:
            sendCode(callback, TETHER_SHUTTERSPEED, "CANON TETHER_SHUTTERSPEED key=%d, value=%s",
                     tables.m_mapTv, model.Tv);
            break;
        case kPropAv:
            sendCode(callback, TETHER_APERTURE, "CANON TETHER_APERTURE key=%d, value=%s",
                     tables.m_mapAv, model.Av);
            break;
        case kPropISOSpeed:
            sendCode(callback, TETHER_ISO, "CANON TETHER_ISO key=%d, value=%s", tables.m_mapISO,
                     model.ISOSpeed);
            break;
        case kPropWhiteBalance:
            sendCode(callback, TETHER_WB, "CANON TETHER_WB key=%d, value=%s", tables.m_mapWB,
                     readDirectly(model, property));
            break;
        case kPropColorTemperature:
            reportColorTemperature(callback, model);
            break;
        case kPropImageQuality:
            reportImageQuality(callback, model);
            break;
        default:
            break;
    }
}

// How many values of a description may be read, whatever the library put into its count.
std::size_t elementCount(const EdsPropertyDesc& description)
{
    const auto most = static_cast<std::int32_t>(kEdsMaxDescElements);
    return static_cast<std::size_t>(std::clamp(description.numElements, 0, most));
}

// The allowed codes that have a text, in the camera's order.
std::string codeList(const EdsPropertyDesc& description, const CodeTexts& table)
{
    ListText list;
    for (std::size_t i = 0; i < elementCount(description); ++i) {
        const auto code = static_cast<std::uint32_t>(description.propDesc[i]);
        if (const char* text = findText(table, code)) {
            list.add(code, text);
        }
    }
    return list.text();
}

// The allowed numbers by their position.
std::string numberList(const EdsPropertyDesc& description)
{
    ListText list;
    for (std::size_t i = 0; i < elementCount(description); ++i) {
        list.add(static_cast<std::uint32_t>(i), description.propDesc[i]);
    }
    return list.text();
}

// Reads a description that the model does not keep; empty when the library refuses.
EdsPropertyDesc readDescDirectly(const CameraModel& model, EdsPropertyID property)
{
    Roomy<EdsPropertyDesc> description;
    EdsGetPropertyDesc(model.camera, property, description.toFill());
    return *description;
}

void reportPropertyDesc(PyCallback& callback, const CameraModel& model, EdsPropertyID property)
{
    const CanonTables& tables = canonTables();
    switch (property) {
        case kPropTv:
            sendText(callback, TETHER_SHUTTERSPEED_LIST, "CANON TETHER_SHUTTERSPEED_LIST=%s",
                     codeList(model.TvDesc, tables.m_mapTv).c_str());
            break;
        case kPropAv:
            sendText(callback, TETHER_APERTURE_LIST, "CANON TETHER_APERTURE_LIST=%s",
                     codeList(model.AvDesc, tables.m_mapAv).c_str());
            break;
        case kPropISOSpeed:
            sendText(callback, TETHER_ISO_LIST, "CANON TETHER_ISO_LIST=%s",
                     codeList(model.ISOSpeedDesc, tables.m_mapISO).c_str());
            break;
        case kPropWhiteBalance:
            sendText(callback, TETHER_WB_LIST, "CANON TETHER_WB_LIST=%s",
                     codeList(readDescDirectly(model, property), tables.m_mapWB).c_str());
            break;
        case kPropColorTemperature:
            sendText(callback, TETHER_COLORTEMP_LIST, "CANON TETHER_COLORTEMP_LIST=%s",
                     numberList(readDescDirectly(model, property)).c_str());
            break;
        default:
            break;
    }
}

}  // namespace

HostReporter::HostReporter(std::shared_ptr<EventReceiver> receiver)
    : m_receiver(std::move(receiver))
{}

void HostReporter::update(Observable* from, const CameraEvent& event)
{
    if (m_receiver->vendor() == VENDOR_CANON) {
        reportToHost(*m_receiver, *static_cast<const CameraModel*>(from), event);
    }
}

void reportToHost(PyCallback& callback, const CameraModel& model, const CameraEvent& event)
{
    const auto argument = [&] { return *static_cast<const std::uint32_t*>(event.arg); };

    if (event.name == "error") {
        if (argument() == kHostDeviceBusy) {
            sendGeneral(callback, deviceBusyText());
        }
    } else if (event.name == "PropertyChanged") {
        reportProperty(callback, model, argument());
    } else if (event.name == "PropertyDescChanged") {
        reportPropertyDesc(callback, model, argument());
    } else if (event.name == "DownloadComplete") {
        sendGeneral(callback, pictureText(g_szLastFile.take()));
    }
}

}  // namespace canon
