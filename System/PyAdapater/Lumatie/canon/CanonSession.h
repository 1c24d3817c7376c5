// The tether object's Canon side: how a session starts, is driven and ends.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "canon/CameraController.h"
#include "canon/CameraModel.h"
#include "canon/EdSdk.h"
#include "canon/Observer.h"

namespace canon {

// What one start has made. A start that failed may leave nothing but the camera.
struct CanonSession {
    EdsCameraRef m_camera = nullptr;  // owned; released before the library is terminated
    std::unique_ptr<CameraController> m_pController;
    std::unique_ptr<CameraModel> m_pModel;  // destroyed before the controller
};

// The Canon members of a tether object. Kept apart from it, and shared, because a session's end
// goes on without the interpreter lock, when the host may already have deleted the object.
//
// A further start leaves the earlier sessions running until CanonClose ends all of them.
struct CanonState {
    std::mutex lock;  // guards the two fields below; held by a start throughout, not by a join
    bool m_bSdkInitialized = false;                       // never cleared again
    std::vector<std::shared_ptr<CanonSession>> sessions;  // oldest first

    std::mutex newestLock;                 // guards `newest`; held for a moment only
    std::shared_ptr<CanonSession> newest;  // the one that settings go to; null when there is none
};

// Starts a session with the first camera whose device description is `szInfo`, in any letter
// case, and makes `tether` an observer of its model; a null text is no camera's. Returns 1, when
// the worker is in its loop and will open the session next, or 0. Interpreter lock not held.
int CanonInit(CanonState& state, Observer& tether, const char* szInfo);

// Ends every session: stops and joins the workers, which close the camera's session last,
// releases the cameras, terminates the library and destroys models and controllers. Returns 1.
// After it nobody calls `tether` any more. Interpreter lock not held.
//
// On a session's own worker, that is from inside the host's callable, nobody can wait for that
// session: the worker finishes the command that it is in and then does the rest of the end
// itself.
int CanonClose(CanonState& state, Observer& tether);

// Whether there is anything for CanonClose to end. Interpreter lock not held.
bool CanonHasSessions(CanonState& state);

// Closes the session whose worker is the thread `worker`, if there is one, in that thread's place:
// it is ending the process from inside the host's callable and will not come back. CanonClose then
// leaves that worker alone. Called while `worker` waits.
void CanonCloseInPlaceOf(std::thread::id worker, CanonState& state);

// Waits until the workers whose sessions were ended from inside the host's callable have done the
// rest, but not for the thread `exiting`, which ends the process from there. Interpreter lock not
// held.
void CanonAwaitEnds(std::thread::id exiting);

// Hands a setting to the newest session; a type that cannot be set is ignored, and so is
// everything while there is no session. `value` is the library's code, or the colour temperature
// itself. Returns 1. Any thread.
int CanonSetValue(CanonState& state, int nType, std::uint32_t value);

// Releases the shutter of the newest session's camera, if there is one. Returns 1. Any thread.
int CanonShoot(CanonState& state);

}  // namespace canon
