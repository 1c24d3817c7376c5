#include "nikon/NikonReporting.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "DebugLog.h"
#include "nikon/MaidCommands.h"

namespace nikon {

// How a setting is reported that is so by its position and its list.
struct NikonReporting::ListReport {
    ListSetting setting;
    std::uint32_t capId;
    TetherType valueType;
    const char* valueLogFormat;
    TetherType listType;
    const char* listLogFormat;
};

NikonReporting::NikonReporting(std::shared_ptr<MaidTree> tree, ReportReceiver& receiver)
    : m_tree(std::move(tree)), m_receiver(receiver)
{}

int NikonReporting::ReportNikonProperties()
{
    static const ListReport lists[] = {
        {ListSetting::shutterSpeed, kMaidCapShutterSpeed, TETHER_SHUTTERSPEED,
         "NIKON TETHER_SHUTTERSPEED=%d", TETHER_SHUTTERSPEED_LIST,
         "NIKON TETHER_SHUTTERSPEED_LIST=%s"},
        {ListSetting::aperture, kMaidCapAperture, TETHER_APERTURE, "NIKON TETHER_APERTURE=%d",
         TETHER_APERTURE_LIST, "NIKON TETHER_APERTURE_LIST=%s"},
        {ListSetting::sensitivity, kMaidCapSensitivity, TETHER_ISO, "NIKON TETHER_ISO=%d",
         TETHER_ISO_LIST, "NIKON TETHER_ISO_LIST=%s"},
        {ListSetting::whiteBalance, kMaidCapWhiteBalance, TETHER_WB, "NIKON TETHER_WB=%d",
         TETHER_WB_LIST, "NIKON TETHER_WB_LIST=%s"},
    };
    const bool reported =
        isAlive() &&
        reportText(kMaidCapExposureMode, TETHER_EXPOSUREMODE, "NIKON TETHER_EXPOSUREMODE=%s",
                   m_readings.exposureMode) &&
        std::all_of(std::begin(lists), std::end(lists),
                    [&](const ListReport& report) { return isAlive() && reportList(report); }) &&
        isAlive() &&
        reportText(kMaidCapImageQuality, TETHER_IMAGEQUALITY, "NIKON TETHER_IMAGEQUALITY=%s",
                   m_readings.imageQuality);
    return reported ? 1 : 0;
}

bool NikonReporting::isAlive()
{
    const MaidObjectPtr source = m_tree->source();
    return source && GetUnsigned(m_tree->driver(), source, kMaidCapLiveness, 0) &&
           m_receiver.isWanted();
}

bool NikonReporting::reportText(std::uint32_t capId, TetherType type, const char* logFormat,
                                const std::string& text)
{
    ReadEnumCapability(*m_tree, capId, m_readings);
    if (!m_receiver.isWanted()) {
        return false;
    }
    DebugLog(logFormat, text.c_str());
    return m_receiver.send(type, text);
}

bool NikonReporting::reportList(const ListReport& report)
{
    ListReading& reading = m_readings.of(report.setting);
    reading = {};
    ReadEnumCapability(*m_tree, report.capId, m_readings);
    if (!m_receiver.isWanted()) {
        return false;
    }
    DebugLog(report.valueLogFormat, reading.index);
    if (!m_receiver.send(report.valueType, reading.index)) {
        return false;
    }
    const bool editable =
        FindCapability(m_tree->driver(), m_tree->source(), report.capId, kMaidOperationSet)
            .has_value();
    reading.list.addFlag(TETHER_NIKON_EDITABLE, editable);
    const std::string list = reading.list.text();
    DebugLog(report.listLogFormat, list.c_str());
    return m_receiver.send(report.listType, list);
}

}  // namespace nikon
