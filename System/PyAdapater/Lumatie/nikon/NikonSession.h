// The tether object's Nikon side: how a session starts, is driven and ends.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "EventReceiver.h"
#include "nikon/Acquisition.h"
#include "nikon/MaidTree.h"
#include "nikon/NikonReporting.h"

namespace nikon {

// A setting as a driver module takes it.
struct NikonSetting {
    std::uint32_t capability;
    std::uint16_t position;  // of the wanted entry in the capability's list, counted from 1
};

// Translates a TETHER_* type and the host's value, of which the low 16 bits count; nothing for a
// type that cannot be set.
std::optional<NikonSetting> nikonSetting(int nType, int value);

// One session: an open camera, and the monitor thread that looks after it once a second.
//
// States: started by `open`, which runs on the host's thread; then the monitor works, until the
// camera does not answer any more or the end is requested; then the objects are closed, by whoever
// ends the session, or by the last thread that leaves it. A session whose module hangs is left
// behind: the thread that is in the module closes it when it comes back. It borrows nothing, so it
// may outlive the tether object.
class NikonSession : public std::enable_shared_from_this<NikonSession>, private ReportReceiver
{
public:
    // Events go to `receiver`, while that serves Nikon.
    NikonSession(std::shared_ptr<EventReceiver> receiver, std::shared_ptr<MaidLibrary> library,
                 Timing timing);
    NikonSession(const NikonSession&) = delete;
    NikonSession& operator=(const NikonSession&) = delete;
    ~NikonSession() override;

    // Opens the module and its first camera and starts the monitor. Returns false on failure or
    // when the end was requested meanwhile; the objects that are open then are closed by an end.
    // Throws std::bad_alloc without memory, which is a failure, too. Called once.
    bool open();

    // Asks for the end: no event is sent any more, waits get short. Any thread.
    void requestEnd();

    // Ends the session, whose end was requested before: waits until every thread has left it, and
    // closes all objects. Gives up on a module that hangs. Either this or `letEnd` is called, once.
    void end();

    // The same without waiting for another thread: whoever is at work in the session closes the
    // objects when it leaves. `underWay` is kept until then.
    void letEnd(std::shared_ptr<void> underWay);

    // The calling thread is this camera's monitor, in the host's callable, and ends the process:
    // it leaves the session, and an end need not wait for it.
    void park();

    // Asks the monitor for a picture. Any thread.
    void shoot() { m_bShootRequest = 1; }

    // Changes a setting of the camera. Any thread. Waits for a command that is under way, or,
    // with `atOnce`, returns false when the module is not free. Throws std::bad_alloc.
    bool set(const NikonSetting& setting, bool atOnce);

    // Whether the monitor's work goes on.
    bool isMonitored() const { return m_bMonitorBusy != 0; }

private:
    bool send(TetherType type, const std::string& text) override;
    bool send(TetherType type, int value) override;
    bool isWanted() override;

    bool startMonitor();
    void releaseMonitor();
    void monitor();
    bool cycle();
    void capture();
    bool beginExposure();
    void endExposure();
    bool acquiresMore() const;
    void pause();
    bool trySet(const NikonSetting& setting, bool atOnce);
    bool enter();
    void leave();
    void close();
    bool closeObjects();
    void leaveBehind();

    std::shared_ptr<void> m_underWay;  // guarded by m_lock; destroyed when the module is unloaded
    const std::shared_ptr<EventReceiver> m_receiver;
    const std::shared_ptr<MaidTree> m_tree;
    NikonReporting m_reporting;
    Acquisition m_acquisition;
    std::atomic<std::int32_t> m_bMonitorRun{0};
    std::atomic<std::int32_t> m_bMonitorBusy{0};
    std::atomic<std::int32_t> m_bShootRequest{0};
    std::atomic<bool> m_endRequested{false};
    std::atomic<bool> m_owesPicture{false};  // of an exposure that the end's request has found

    std::mutex m_lock;  // guards the fields below; held for a moment only
    std::condition_variable m_changed;
    std::thread m_monitor;
    unsigned m_atWork = 1;  // threads that use the module: the start, the monitor, the host's
    std::atomic<bool> m_parked{false};  // the monitor has left, but its thread goes on
    bool m_exposing = false;            // a picture was asked for, and has not come yet
    bool m_lastCloses = false;          // the last thread at work closes the objects
    bool m_leftBehind = false;
};

// The Nikon members of a tether object. Kept apart from it, and shared, because a session's end
// goes on without the interpreter lock, when the host may already have deleted the object.
//
// A further start leaves the earlier sessions running until one end takes all of them out.
struct NikonState {
    std::mutex lock;  // guards `sessions`; held for a moment only
    std::vector<std::shared_ptr<NikonSession>> sessions;  // oldest first
};

// Starts a session through the driver module at `modulePath`, which may be any path, and sends the
// camera's events to `receiver`. Returns 1, when the monitor is at work, or 0 with nothing left
// open; the debug log or standard output says why. Interpreter lock not held.
int NikonInit(NikonState& state, const std::shared_ptr<EventReceiver>& receiver,
              const char* modulePath);

// The same with a module that is loaded already.
int NikonStart(NikonState& state, const std::shared_ptr<EventReceiver>& receiver,
               std::shared_ptr<MaidLibrary> library, Timing timing = {});

// Ends every session: after it nobody calls the host's callable any more, the objects are closed,
// on the calling thread, and the modules are unloaded. A session whose module hangs is left behind
// within ten seconds; a module that hangs in a close holds the caller. The calling thread is in no
// session's callable and does not hold the interpreter lock.
void NikonUninit(NikonState& state);

// Ends every session without waiting for another thread, for a caller that is inside the host's
// callable or ends the interpreter. The session whose monitor calls is closed before this returns,
// every other one by the thread that is at work in it. Each keeps `underWay` until it was closed.
// Interpreter lock not held.
void NikonLetEnd(NikonState& state, const std::shared_ptr<void>& underWay);

// Asks for the end of every session: a start that is under way gives up. An end follows. Any
// thread.
void NikonRequestEnd(NikonState& state);

// The calling thread ends the process from inside the host's callable. If it is a session's
// monitor, an end on another thread that waits for it need not any more.
void NikonLeaveMonitor();

// Whether there is a session to end. Any thread.
bool NikonHasSessions(NikonState& state);

// Hands a setting to the newest session's camera; a type that cannot be set is ignored, and so is
// everything while there is no session. The interpreter lock is kept if nobody else uses the
// module, and given up for the time otherwise. Returns 1. Any thread.
int NikonSetValue(NikonState& state, int nType, int value);

// Asks the newest session for a picture, if there is one. Returns 1. Any thread.
int NikonShoot(NikonState& state);

}  // namespace nikon
