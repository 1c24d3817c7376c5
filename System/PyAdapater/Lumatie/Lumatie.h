// The tether object: the one thing that a Python host creates to shoot tethered.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "PyCallback.h"
#include "canon/SdkFlag.h"

// The C type of every result; 32 bits, as in the Windows API.
using BOOL = int;

class Tethering;

// Chooses the camera's maker in Init and hands every operation to that maker's backend.
//
// States: none, then Nikon or Canon by Init, and none again by Uninit; every operation is valid in
// every state. A failed Init leaves the vendor set. An Init on a live object does not end the
// earlier session: that one runs on until Uninit, which ends all of them.
//
// Every operation is entered with the interpreter lock held. Init and Uninit give it up while a
// backend works; the others keep it, unless they have to wait for another thread. The callable may
// call any of them, and may drop the last reference to the object. An operation throws
// std::bad_alloc when there is no memory for it, and nothing else; an end takes none.
class Lumatie final
{
public:
    // Reads the debug log's switch.
    Lumatie();
    Lumatie(const Lumatie&) = delete;
    Lumatie& operator=(const Lumatie&) = delete;

    // Ends the session first, if there is one, and returns when all ends of its sessions are over,
    // whoever has begun them. Inside the host's callable it waits as Uninit does. Interpreter lock
    // held.
    ~Lumatie();

    // Starts a session. `szInfo`: the path of a Nikon driver module when a file is there, else
    // the device description of a Canon camera; may be null, which is no camera's. Pictures go
    // into `szExportFolder`; a null text, or one of 256 bytes or more, ends the process. Events
    // go to `callback`; null and None drop them. All three are copied. Returns 1 or 0.
    BOOL Init(const char* szInfo, const char* szExportFolder, PyObject* callback);

    // Pictures from now on go into `szExportFolder`, which is neither checked nor created; what
    // Init says of it holds here. Returns 1.
    BOOL UpdateExportFolder(const char* szExportFolder);

    // Ends the session; after this returns no event is delivered. Called from inside a callable it
    // does not wait for what a callable holds up: that session's end then follows by itself.
    // Returns 0 when no vendor was active, else 1.
    BOOL Uninit();

    // Asks for a picture; it arrives later, as an event. Returns 1.
    BOOL Shoot();

    // Changes a setting: `nType` is one of the TETHER_* codes, `value` a key of that type's list.
    // Types that cannot be set are ignored. Returns 1.
    BOOL SetValue(int nType, int value);

    // The active maker, one of the VENDOR_* codes. Any thread.
    int vendor() const;

    // Ends the sessions of all tether objects because the interpreter is about to end. Gives up
    // on sessions that give no sign of life for ten seconds. Interpreter lock held.
    static void endAllSessions();

private:
    // What is there between Init and Uninit; null when there is nothing, or only another process's.
    std::shared_ptr<Tethering> tethering() const;
    std::shared_ptr<Tethering> openTethering(PyObject* callback);

    const std::uint64_t m_number;  // of this object; no other one ever has it
    const canon::SdkFlag m_bSdkInitialized;
    mutable std::mutex m_lock;  // guards the field below; held for a moment only
    std::shared_ptr<Tethering> m_tethering;
};
