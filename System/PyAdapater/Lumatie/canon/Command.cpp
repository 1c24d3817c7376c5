#include "canon/Command.h"

#include "canon/CameraModel.h"
#include "canon/EdSdkCodes.h"

namespace canon {

void Command::reportFailure(EdsError error) const
{
    if (error == kDeviceBusy) {
        m_model.notify("DeviceBusy");
    } else if (error != kOk) {
        m_model.notify("error", error);
    }
}

}  // namespace canon
