// The handlers through which Canon's library tells what happens on the camera.
#pragma once

#include "EdSdk.h"

namespace canon {

class CameraController;

// Registers the three handlers for `camera`: properties, objects, state. A handler only hands a
// named action to `controller`, which must live until the library was terminated. The library
// may call from any thread, from now on, and from inside calls of ours. A registration that
// fails is not reported; those after it are left out.
void registerEventHandlers(EdsCameraRef camera, CameraController& controller);

}  // namespace canon
