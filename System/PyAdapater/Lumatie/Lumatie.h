// The tether object: the one thing that a Python host creates to shoot tethered.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "PyCallback.h"
#include "TetherEvents.h"
#include "canon/Observer.h"

// The C type of every result; 32 bits, as in the Windows API.
using BOOL = int;

namespace canon {
struct CanonState;
}
namespace nikon {
struct NikonState;
}

// Chooses the camera's maker in Init and hands every operation to that maker's backend.
//
// States: none, then Nikon or Canon by Init, and none again by Uninit; every operation is valid in
// every state. A failed Init leaves the vendor set. An Init on a live object does not end the
// earlier session: that one runs on until Uninit, which ends all of them.
//
// Every operation is entered with the interpreter lock held. Init and Uninit give it up while a
// backend works; the others keep it. No operation throws. The callable may call any of them, and
// may drop the last reference to the object.
class Lumatie : public PyCallback, public canon::Observer
{
public:
    // Reads the debug log's switch. Never fails.
    Lumatie();
    Lumatie(const Lumatie&) = delete;
    Lumatie& operator=(const Lumatie&) = delete;

    // Ends the session first, if there is one.
    ~Lumatie() override;

    // Starts a session. `szInfo`: the path of a Nikon driver module when a file is there, else
    // the device description of a Canon camera; may be null, which is no camera's. Pictures go
    // into `szExportFolder`; a null text, or one of 256 bytes or more, ends the process. Events
    // go to `callback`; null and None drop them. All three are copied. Returns 1 or 0.
    BOOL Init(const char* szInfo, const char* szExportFolder, PyObject* callback);

    // Pictures from now on go into `szExportFolder`, which is neither checked nor created; what
    // Init says of it holds here. Returns 1.
    BOOL UpdateExportFolder(const char* szExportFolder);

    // Ends the session; after this returns no event is delivered. Called from inside the
    // callable it does not wait for the session's end, which then follows by itself. Returns 0
    // when no vendor was active, else 1.
    BOOL Uninit();

    // Asks for a picture; it arrives later, as an event. Returns 1.
    BOOL Shoot();

    // Changes a setting: `nType` is one of the TETHER_* codes, `value` a key of that type's list.
    // Types that cannot be set are ignored. Returns 1.
    BOOL SetValue(int nType, int value);

    // The active maker, one of the VENDOR_* codes.
    int vendor() const { return m_nVendor; }

    // Ends the sessions of all tether objects because the interpreter is about to end. Gives up
    // on a session that gives no sign of life for ten seconds. Interpreter lock held.
    static void endAllSessions();

private:
    // The first half of Uninit, with the interpreter lock held: lets go of everything that the
    // host gave and returns what ends the backend; null when no vendor was active. The calling
    // thread, which may be inside the callable, waits for that end on whatever thread it runs.
    std::function<void()> letGo();

    void update(canon::Observable* from, const canon::CameraEvent& event) override;

    // Whether this process was split off since Init: the session is the other process's.
    bool isCopy() const;

    std::atomic<unsigned long> m_process{0};  // where Init was called last
    std::atomic<std::int32_t> m_nVendor{VENDOR_NONE};
    std::shared_ptr<canon::CanonState> m_canon;
    std::shared_ptr<nikon::NikonState> m_nikon;
};
