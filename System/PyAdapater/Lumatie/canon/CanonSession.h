// The tether object's Canon side: how a session starts, is driven and ends.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "EdSdk.h"
#include "canon/CameraController.h"
#include "canon/CameraModel.h"
#include "canon/Observer.h"
#include "canon/SdkFlag.h"

namespace canon {

class CanonEnd;

// What one start has made. A start that failed may leave nothing but the camera. A worker keeps its
// session alive.
struct CanonSession {
    EdsCameraRef m_camera = nullptr;       // owned; released before the library is terminated
    std::shared_ptr<Observer> m_reporter;  // the model's only observer
    std::unique_ptr<CameraController> m_pController;
    std::unique_ptr<CameraModel> m_pModel;  // destroyed before the controller
    std::shared_ptr<CanonEnd> m_end;        // while it is the worker's to end the session
    bool m_hasNoWorker = false;             // at an end that does not wait
};

// The Canon side of a tethering. A further start leaves the earlier sessions running until all of
// them are ended.
struct CanonState {
    explicit CanonState(SdkFlag initialized = std::make_shared<std::atomic<bool>>(false))
        : m_bSdkInitialized(std::move(initialized))
    {}

    const SdkFlag m_bSdkInitialized;
    std::mutex lock;  // guards the fields below; held by a start throughout, not by a join
    std::vector<std::shared_ptr<CanonSession>> sessions;  // oldest first
    std::shared_ptr<CanonEnd> nextEnd;  // made by a start, for an end may find no memory

    std::mutex newestLock;                 // guards `newest`; held for a moment only
    std::shared_ptr<CanonSession> newest;  // the one that settings go to; null when there is none
};

// Runs a piece of work on some thread.
using Apart = std::function<void(const std::function<void()>&)>;

// Starts a session with the first camera whose device description is `szInfo`, in any letter
// case, and makes `reporter` the observer of its model; a null text is no camera's. Returns 1, when
// the worker is in its loop and will open the session next, or 0. Throws std::bad_alloc when there
// is no memory; then the state's other sessions go on, and an end is to follow. Interpreter lock
// not held.
int CanonInit(CanonState& state, std::shared_ptr<Observer> reporter, const char* szInfo);

// Ends every session: stops and joins the workers, which close the camera's session last,
// releases the cameras, terminates the library and destroys models and controllers. Returns 1.
// After it no observer is told anything. Takes no memory. Not on a worker; interpreter lock not
// held.
int CanonClose(CanonState& state);

// The same for a caller that must not wait, which may be a session's worker: each worker stops
// after the command that it is in and does the rest of its session's end itself. What there is no
// worker for is given to `apart`. `underWay` is kept until all of it is done. Takes no memory when
// there is a session to end. Interpreter lock not held.
void CanonLetEnd(CanonState& state, std::shared_ptr<void> underWay, const Apart& apart);

// Whether a start has left anything to end. Interpreter lock not held.
bool CanonHasSessions(CanonState& state);

// Hands a setting to the newest session; a type that cannot be set is ignored, and so is
// everything while there is no session. `value` is the library's code, or the colour temperature
// itself. Returns 1. Any thread.
int CanonSetValue(CanonState& state, int nType, std::uint32_t value);

// Releases the shutter of the newest session's camera, if there is one. Returns 1. Any thread.
int CanonShoot(CanonState& state);

}  // namespace canon
