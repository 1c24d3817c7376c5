#include "canon/ShootingCommands.h"

#include "EdSdkCodes.h"
#include "canon/CameraModel.h"

namespace canon {

bool TakePictureCommand::execute()
{
    const EdsCameraRef camera = model().camera;
    EdsError error = EdsSendCommand(camera, kCommandPressShutterButton, kShutterCompletely);
    EdsSendCommand(camera, kCommandPressShutterButton, kShutterOff);
    if (error == kInvalidParameter) {
        // Bodies without the button command take pictures this way.
        error = EdsSendCommand(camera, kCommandTakePicture, 0);
    }
    reportFailure(error);
    return true;
}

bool PressShutterButtonCommand::execute()
{
    reportFailure(EdsSendCommand(model().camera, kCommandPressShutterButton, m_button));
    return true;
}

bool NotifyCommand::execute()
{
    model().notify(m_name.c_str());
    return true;
}

}  // namespace canon
