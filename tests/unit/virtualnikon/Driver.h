// The virtual driver module as applications get it: loaded by path, functions looked up by name.
#pragma once

#include <string>

#include "System.h"
#include "VirtualNikon.h"
#include "nikon/Maid.h"

// A handle on the library; another one on the same path shares its state.
class Driver : public LoadedLibrary
{
public:
    using LoadedLibrary::LoadedLibrary;

    MaidEntryPoint entryPoint = find<MaidEntryPoint>(kMaidEntryPointName);
    decltype(&VirtualNikonReset) reset = find<decltype(&VirtualNikonReset)>("VirtualNikonReset");
    decltype(&VirtualNikonConfigure) configure =
        find<decltype(&VirtualNikonConfigure)>("VirtualNikonConfigure");
    decltype(&VirtualNikonSettings) settings =
        find<decltype(&VirtualNikonSettings)>("VirtualNikonSettings");
    decltype(&VirtualNikonLastError) lastError =
        find<decltype(&VirtualNikonLastError)>("VirtualNikonLastError");
    decltype(&VirtualNikonAdd) add = find<decltype(&VirtualNikonAdd)>("VirtualNikonAdd");
    decltype(&VirtualNikonRemove) remove =
        find<decltype(&VirtualNikonRemove)>("VirtualNikonRemove");
    decltype(&VirtualNikonCount) count = find<decltype(&VirtualNikonCount)>("VirtualNikonCount");
    decltype(&VirtualNikonUnplug) unplug =
        find<decltype(&VirtualNikonUnplug)>("VirtualNikonUnplug");
    decltype(&VirtualNikonPlug) plug = find<decltype(&VirtualNikonPlug)>("VirtualNikonPlug");
    decltype(&VirtualNikonSourceOpen) sourceOpen =
        find<decltype(&VirtualNikonSourceOpen)>("VirtualNikonSourceOpen");
    decltype(&VirtualNikonPressShutter) pressShutter =
        find<decltype(&VirtualNikonPressShutter)>("VirtualNikonPressShutter");
    decltype(&VirtualNikonTurnDial) turnDial =
        find<decltype(&VirtualNikonTurnDial)>("VirtualNikonTurnDial");
    decltype(&VirtualNikonSetValue) setValue =
        find<decltype(&VirtualNikonSetValue)>("VirtualNikonSetValue");
    decltype(&VirtualNikonValue) value = find<decltype(&VirtualNikonValue)>("VirtualNikonValue");
    decltype(&VirtualNikonValueText) valueText =
        find<decltype(&VirtualNikonValueText)>("VirtualNikonValueText");
    decltype(&VirtualNikonSetTexts) setTexts =
        find<decltype(&VirtualNikonSetTexts)>("VirtualNikonSetTexts");
    decltype(&VirtualNikonTexts) texts = find<decltype(&VirtualNikonTexts)>("VirtualNikonTexts");
    decltype(&VirtualNikonOperations) operations =
        find<decltype(&VirtualNikonOperations)>("VirtualNikonOperations");
    decltype(&VirtualNikonCorrupt) corrupt =
        find<decltype(&VirtualNikonCorrupt)>("VirtualNikonCorrupt");
    decltype(&VirtualNikonSetDescription) setDescription =
        find<decltype(&VirtualNikonSetDescription)>("VirtualNikonSetDescription");
    decltype(&VirtualNikonClearCorruption) clearCorruption =
        find<decltype(&VirtualNikonClearCorruption)>("VirtualNikonClearCorruption");
    decltype(&VirtualNikonFault) fault = find<decltype(&VirtualNikonFault)>("VirtualNikonFault");
    decltype(&VirtualNikonFailNext) failNext =
        find<decltype(&VirtualNikonFailNext)>("VirtualNikonFailNext");
    decltype(&VirtualNikonEventRule) eventRule =
        find<decltype(&VirtualNikonEventRule)>("VirtualNikonEventRule");
    decltype(&VirtualNikonClearFaults) clearFaults =
        find<decltype(&VirtualNikonClearFaults)>("VirtualNikonClearFaults");
    decltype(&VirtualNikonReleaseHangs) releaseHangs =
        find<decltype(&VirtualNikonReleaseHangs)>("VirtualNikonReleaseHangs");
    decltype(&VirtualNikonWaitForHang) waitForHang =
        find<decltype(&VirtualNikonWaitForHang)>("VirtualNikonWaitForHang");
    decltype(&VirtualNikonPending) pending =
        find<decltype(&VirtualNikonPending)>("VirtualNikonPending");
    decltype(&VirtualNikonReleaseCompletions) releaseCompletions =
        find<decltype(&VirtualNikonReleaseCompletions)>("VirtualNikonReleaseCompletions");
    decltype(&VirtualNikonSendEvent) sendEvent =
        find<decltype(&VirtualNikonSendEvent)>("VirtualNikonSendEvent");
    decltype(&VirtualNikonSendStrayEvent) sendStrayEvent =
        find<decltype(&VirtualNikonSendStrayEvent)>("VirtualNikonSendStrayEvent");
    decltype(&VirtualNikonEventCount) eventCount =
        find<decltype(&VirtualNikonEventCount)>("VirtualNikonEventCount");
    decltype(&VirtualNikonWaitForEvents) waitForEvents =
        find<decltype(&VirtualNikonWaitForEvents)>("VirtualNikonWaitForEvents");
    decltype(&VirtualNikonCallCount) callCount =
        find<decltype(&VirtualNikonCallCount)>("VirtualNikonCallCount");
    decltype(&VirtualNikonWaitForCalls) waitForCalls =
        find<decltype(&VirtualNikonWaitForCalls)>("VirtualNikonWaitForCalls");
    decltype(&VirtualNikonWaitUntilIdle) waitUntilIdle =
        find<decltype(&VirtualNikonWaitUntilIdle)>("VirtualNikonWaitUntilIdle");
    decltype(&VirtualNikonLog) log = find<decltype(&VirtualNikonLog)>("VirtualNikonLog");
    decltype(&VirtualNikonClock) clock = find<decltype(&VirtualNikonClock)>("VirtualNikonClock");
    decltype(&VirtualNikonClearLog) clearLog =
        find<decltype(&VirtualNikonClearLog)>("VirtualNikonClearLog");
    decltype(&VirtualNikonMisuseCount) misuseCount =
        find<decltype(&VirtualNikonMisuseCount)>("VirtualNikonMisuseCount");
    decltype(&VirtualNikonMisuse) misuse =
        find<decltype(&VirtualNikonMisuse)>("VirtualNikonMisuse");
    decltype(&VirtualNikonClearMisuse) clearMisuse =
        find<decltype(&VirtualNikonClearMisuse)>("VirtualNikonClearMisuse");
    decltype(&VirtualNikonOpenCount) openCount =
        find<decltype(&VirtualNikonOpenCount)>("VirtualNikonOpenCount");
    decltype(&VirtualNikonOpenObjects) openObjects =
        find<decltype(&VirtualNikonOpenObjects)>("VirtualNikonOpenObjects");
    decltype(&VirtualNikonForgetObjects) forgetObjects =
        find<decltype(&VirtualNikonForgetObjects)>("VirtualNikonForgetObjects");
    decltype(&VirtualNikonAddItem) addItem =
        find<decltype(&VirtualNikonAddItem)>("VirtualNikonAddItem");
    decltype(&VirtualNikonRemoveItem) removeItem =
        find<decltype(&VirtualNikonRemoveItem)>("VirtualNikonRemoveItem");
    decltype(&VirtualNikonItemCount) itemCount =
        find<decltype(&VirtualNikonItemCount)>("VirtualNikonItemCount");
    decltype(&VirtualNikonPictureCount) pictureCount =
        find<decltype(&VirtualNikonPictureCount)>("VirtualNikonPictureCount");
    decltype(&VirtualNikonWaitForPictures) waitForPictures =
        find<decltype(&VirtualNikonWaitForPictures)>("VirtualNikonWaitForPictures");
    decltype(&VirtualNikonWaitForDelivered) waitForDelivered =
        find<decltype(&VirtualNikonWaitForDelivered)>("VirtualNikonWaitForDelivered");
    decltype(&VirtualNikonPictureList) pictureList =
        find<decltype(&VirtualNikonPictureList)>("VirtualNikonPictureList");
    decltype(&VirtualNikonPictureValue) pictureValue =
        find<decltype(&VirtualNikonPictureValue)>("VirtualNikonPictureValue");
    decltype(&VirtualNikonPictureName) pictureName =
        find<decltype(&VirtualNikonPictureName)>("VirtualNikonPictureName");
    decltype(&VirtualNikonPictureBytes) pictureBytes =
        find<decltype(&VirtualNikonPictureBytes)>("VirtualNikonPictureBytes");
};

// The one that the tests share; loaded at the first use and kept.
const Driver& driver();
