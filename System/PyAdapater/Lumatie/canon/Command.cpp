#include "canon/Command.h"

#include "EdSdkCodes.h"
#include "canon/CameraModel.h"

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
