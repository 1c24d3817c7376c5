// A virtual camera's library as applications get it: loaded by path, functions looked up by name.
#pragma once

#include "System.h"
#include "VirtualCamera.h"

// A handle on the library; another one on the same path shares its state.
class SteeredLibrary : public LoadedLibrary
{
public:
    using LoadedLibrary::LoadedLibrary;

    decltype(&VirtualCameraReset) reset = find<decltype(&VirtualCameraReset)>("VirtualCameraReset");
    decltype(&VirtualCameraConfigure) configure =
        find<decltype(&VirtualCameraConfigure)>("VirtualCameraConfigure");
    decltype(&VirtualCameraSettings) settings =
        find<decltype(&VirtualCameraSettings)>("VirtualCameraSettings");
    decltype(&VirtualCameraLastError) lastError =
        find<decltype(&VirtualCameraLastError)>("VirtualCameraLastError");
    decltype(&VirtualCameraAdd) add = find<decltype(&VirtualCameraAdd)>("VirtualCameraAdd");
    decltype(&VirtualCameraRemove) remove =
        find<decltype(&VirtualCameraRemove)>("VirtualCameraRemove");
    decltype(&VirtualCameraCount) count = find<decltype(&VirtualCameraCount)>("VirtualCameraCount");
    decltype(&VirtualCameraUnplug) unplug =
        find<decltype(&VirtualCameraUnplug)>("VirtualCameraUnplug");
    decltype(&VirtualCameraPlug) plug = find<decltype(&VirtualCameraPlug)>("VirtualCameraPlug");
    decltype(&VirtualCameraSessionOpen) sessionOpen =
        find<decltype(&VirtualCameraSessionOpen)>("VirtualCameraSessionOpen");
    decltype(&VirtualCameraPressShutter) pressShutter =
        find<decltype(&VirtualCameraPressShutter)>("VirtualCameraPressShutter");
    decltype(&VirtualCameraEndExposure) endExposure =
        find<decltype(&VirtualCameraEndExposure)>("VirtualCameraEndExposure");
    decltype(&VirtualCameraWaitForExposure) waitForExposure =
        find<decltype(&VirtualCameraWaitForExposure)>("VirtualCameraWaitForExposure");
    decltype(&VirtualCameraTurnDial) turnDial =
        find<decltype(&VirtualCameraTurnDial)>("VirtualCameraTurnDial");
    decltype(&VirtualCameraFault) fault = find<decltype(&VirtualCameraFault)>("VirtualCameraFault");
    decltype(&VirtualCameraFailNext) failNext =
        find<decltype(&VirtualCameraFailNext)>("VirtualCameraFailNext");
    decltype(&VirtualCameraEventRule) eventRule =
        find<decltype(&VirtualCameraEventRule)>("VirtualCameraEventRule");
    decltype(&VirtualCameraClearFaults) clearFaults =
        find<decltype(&VirtualCameraClearFaults)>("VirtualCameraClearFaults");
    decltype(&VirtualCameraReleaseHangs) releaseHangs =
        find<decltype(&VirtualCameraReleaseHangs)>("VirtualCameraReleaseHangs");
    decltype(&VirtualCameraWaitForHang) waitForHang =
        find<decltype(&VirtualCameraWaitForHang)>("VirtualCameraWaitForHang");
    decltype(&VirtualCameraEventCount) eventCount =
        find<decltype(&VirtualCameraEventCount)>("VirtualCameraEventCount");
    decltype(&VirtualCameraWaitForEvents) waitForEvents =
        find<decltype(&VirtualCameraWaitForEvents)>("VirtualCameraWaitForEvents");
    decltype(&VirtualCameraCallCount) callCount =
        find<decltype(&VirtualCameraCallCount)>("VirtualCameraCallCount");
    decltype(&VirtualCameraWaitForCalls) waitForCalls =
        find<decltype(&VirtualCameraWaitForCalls)>("VirtualCameraWaitForCalls");
    decltype(&VirtualCameraWaitUntilIdle) waitUntilIdle =
        find<decltype(&VirtualCameraWaitUntilIdle)>("VirtualCameraWaitUntilIdle");
    decltype(&VirtualCameraLog) log = find<decltype(&VirtualCameraLog)>("VirtualCameraLog");
    decltype(&VirtualCameraClock) clock = find<decltype(&VirtualCameraClock)>("VirtualCameraClock");
    decltype(&VirtualCameraClearLog) clearLog =
        find<decltype(&VirtualCameraClearLog)>("VirtualCameraClearLog");
    decltype(&VirtualCameraMisuseCount) misuseCount =
        find<decltype(&VirtualCameraMisuseCount)>("VirtualCameraMisuseCount");
    decltype(&VirtualCameraMisuse) misuse =
        find<decltype(&VirtualCameraMisuse)>("VirtualCameraMisuse");
    decltype(&VirtualCameraClearMisuse) clearMisuse =
        find<decltype(&VirtualCameraClearMisuse)>("VirtualCameraClearMisuse");
    decltype(&VirtualCameraPictureCount) pictureCount =
        find<decltype(&VirtualCameraPictureCount)>("VirtualCameraPictureCount");
    decltype(&VirtualCameraWaitForPictures) waitForPictures =
        find<decltype(&VirtualCameraWaitForPictures)>("VirtualCameraWaitForPictures");
    decltype(&VirtualCameraPictureList) pictureList =
        find<decltype(&VirtualCameraPictureList)>("VirtualCameraPictureList");
    decltype(&VirtualCameraPictureValue) pictureValue =
        find<decltype(&VirtualCameraPictureValue)>("VirtualCameraPictureValue");
    decltype(&VirtualCameraPictureName) pictureName =
        find<decltype(&VirtualCameraPictureName)>("VirtualCameraPictureName");
    decltype(&VirtualCameraPictureBytes) pictureBytes =
        find<decltype(&VirtualCameraPictureBytes)>("VirtualCameraPictureBytes");
};
