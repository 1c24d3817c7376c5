// The reports of the camera's settings to the host, all of them in each of the monitor's cycles.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "TetherEvents.h"
#include "nikon/EnumSetting.h"
#include "nikon/MaidTree.h"

namespace nikon {

// What the reports are sent to. Each function returns whether to go on: no, once the session's stop
// was requested. No lock is held during the calls.
class ReportReceiver
{
public:
    virtual ~ReportReceiver() = default;
    virtual bool send(TetherType type, const std::string& text) = 0;
    virtual bool send(TetherType type, int value) = 0;

    // Whether the host still wants reports.
    virtual bool isWanted() = 0;
};

// The reports of one session. Used by one thread at a time, the session's monitor.
class NikonReporting
{
public:
    NikonReporting(std::shared_ptr<MaidTree> tree, ReportReceiver& receiver);

    // Reports all six settings of the camera in use. Before most of them it looks whether the
    // camera still answers and whether the host still wants reports; when not, it ends at once
    // and returns 0. A setting that cannot be read is reported as unknown. Returns 1.
    int ReportNikonProperties();

private:
    struct ListReport;

    bool isAlive();
    bool reportText(std::uint32_t capId, TetherType type, const char* logFormat,
                    const std::string& text);
    bool reportList(const ListReport& report);

    const std::shared_ptr<MaidTree> m_tree;
    ReportReceiver& m_receiver;
    // A list is cleared before it is read; of a text that cannot be read the last one stays.
    EnumReadings m_readings;
};

}  // namespace nikon
