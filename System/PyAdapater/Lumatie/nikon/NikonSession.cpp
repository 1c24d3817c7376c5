#include "nikon/NikonSession.h"

#include "DebugLog.h"
#include "TetherEvents.h"

namespace nikon {

std::optional<NikonSetting> nikonSetting(int nType, int value)
{
    const auto position = static_cast<std::uint16_t>(value);
    switch (nType) {
        case TETHER_SHUTTERSPEED:
            return NikonSetting{0x8112, position};
        case TETHER_APERTURE:
            return NikonSetting{0x8113, position};
        case TETHER_ISO:
            return NikonSetting{0x8117, position};
        case TETHER_WB:
            return NikonSetting{0x8118, position};
        default:
            return std::nullopt;
    }
}

int NikonInit(const char* modulePath)
{
    DebugLog("NIKON driver modules are not supported by this build: %s", modulePath);
    return 0;
}

}  // namespace nikon
