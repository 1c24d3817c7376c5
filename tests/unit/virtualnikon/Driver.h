// The virtual driver module as applications get it.
#pragma once

#include "Maid.h"
#include "VirtualNikon.h"
#include "virtualcamera/SteeredLibrary.h"

class Driver : public SteeredLibrary
{
public:
    using SteeredLibrary::SteeredLibrary;

    MaidEntryPoint entryPoint = find<MaidEntryPoint>(kMaidEntryPointName);
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
    decltype(&VirtualNikonPending) pending =
        find<decltype(&VirtualNikonPending)>("VirtualNikonPending");
    decltype(&VirtualNikonReleaseCompletions) releaseCompletions =
        find<decltype(&VirtualNikonReleaseCompletions)>("VirtualNikonReleaseCompletions");
    decltype(&VirtualNikonSendEvent) sendEvent =
        find<decltype(&VirtualNikonSendEvent)>("VirtualNikonSendEvent");
    decltype(&VirtualNikonSendStrayEvent) sendStrayEvent =
        find<decltype(&VirtualNikonSendStrayEvent)>("VirtualNikonSendStrayEvent");
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
    decltype(&VirtualNikonWaitForDelivered) waitForDelivered =
        find<decltype(&VirtualNikonWaitForDelivered)>("VirtualNikonWaitForDelivered");
};

// The one that the tests share; loaded at the first use and kept.
const Driver& driver();
