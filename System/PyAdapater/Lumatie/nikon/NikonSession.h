// The tether object's Nikon side: how a session starts, is driven and ends.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "PyCallback.h"
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
// camera does not answer any more or the end is requested; then `end` closes everything. A session
// whose module hangs is left behind: nothing of it is ever freed.
class NikonSession : public std::enable_shared_from_this<NikonSession>, private ReportReceiver
{
public:
    // Events go to `tether`, which must live until `end` has returned.
    NikonSession(PyCallback& tether, std::shared_ptr<MaidLibrary> library, Timing timing);
    NikonSession(const NikonSession&) = delete;
    NikonSession& operator=(const NikonSession&) = delete;
    ~NikonSession() override;

    // Opens the module and its first camera and starts the monitor. Returns false, with everything
    // closed again, on failure or when the end was requested meanwhile. Called once.
    bool open();

    // Asks for the end: no event is sent any more, waits get short. Any thread.
    void requestEnd();

    // Ends the session, which was requested before: waits until the monitor has left its cycle,
    // closes all objects and lets go of the module. Gives up on a module that hangs. Called once.
    // The monitor is not waited for when it is the thread `parked`, which is inside the host's
    // callable and stays there until this has returned, or the one that ends the process.
    void end(std::thread::id parked);

    // Reports end at the next look at the camera: the tether object serves another maker now.
    void endReports() { m_wantsReports = false; }

    // Asks the monitor for a picture. Any thread.
    void shoot() { m_bShootRequest = 1; }

    // Changes a setting of the camera. Any thread; waits for a command that is under way.
    void set(const NikonSetting& setting);

    // Whether the monitor's work goes on.
    bool isMonitored() const { return m_bMonitorBusy != 0; }

    // Whether the closing of the objects is over, as far as it went.
    bool isClosed();

private:
    bool send(TetherType type, const std::string& text) override;
    bool send(TetherType type, int value) override;
    bool isWanted() override;

    bool openCamera();
    void startMonitor();
    void monitor();
    void capture();
    void pause();
    void close();
    bool waitUntil(const std::function<bool()>& done);
    void leaveBehind();

    PyCallback& m_tether;
    const std::shared_ptr<MaidTree> m_tree;
    NikonReporting m_reporting;
    Acquisition m_acquisition;
    std::atomic<bool> m_wantsReports{true};
    std::atomic<std::int32_t> m_bMonitorRun{0};
    std::atomic<std::int32_t> m_bMonitorBusy{0};
    std::atomic<std::int32_t> m_bShootRequest{0};
    std::atomic<bool> m_endRequested{false};

    std::mutex m_lock;  // guards the fields below; held for a moment only
    std::condition_variable m_changed;
    std::thread m_monitor;
    std::thread::id m_monitorId;
    bool m_idle = true;  // neither `open` nor the monitor is at work
    bool m_closed = false;
    bool m_silent = false;  // the module did not answer while it was closed
};

// The Nikon members of a tether object. Kept apart from it, and shared, because a session's end
// goes on without the interpreter lock, when the host may already have deleted the object.
//
// A further start leaves the earlier sessions running until NikonUninit ends all of them.
struct NikonState {
    std::mutex lock;  // guards `sessions`; held for a moment only
    std::vector<std::shared_ptr<NikonSession>> sessions;  // oldest first
};

// Starts a session through the driver module at `modulePath`, which may be any path, and sends the
// camera's events to `tether`. Returns 1, when the monitor is at work, or 0 with nothing left
// open; the debug log or standard output says why. Interpreter lock not held.
int NikonInit(NikonState& state, PyCallback& tether, const char* modulePath);

// The same with a module that is loaded already.
int NikonStart(NikonState& state, PyCallback& tether, std::shared_ptr<MaidLibrary> library,
               Timing timing = {});

// Ends every session, and returns 1. After it nobody calls `tether` any more, and the modules are
// unloaded, but for one that hangs: its session is left behind within ten seconds. Interpreter
// lock not held. The thread `parked` may be a session's monitor inside the host's callable; it
// waits until this has returned.
int NikonUninit(NikonState& state, std::thread::id parked);

// Whether there is anything for NikonUninit to end. Any thread.
bool NikonHasSessions(NikonState& state);

// Says, as long as it lives, that the thread which made it ends sessions. Any thread.
class EndUnderWay
{
public:
    EndUnderWay();
    EndUnderWay(const EndUnderWay&) = delete;
    EndUnderWay& operator=(const EndUnderWay&) = delete;
    ~EndUnderWay();

private:
    const std::thread::id m_thread;
};

// Waits until the other threads' ends that are under way are done. The thread `exiting` ends the
// process, maybe from inside the host's callable: no session waits for it any more. Interpreter
// lock not held.
void NikonAwaitEnds(std::thread::id exiting);

// The tether object serves another maker from now on: reports end. Any thread.
void NikonEndReports(NikonState& state);

// Hands a setting to the newest session's camera; a type that cannot be set is ignored, and so is
// everything while there is no session. Returns 1. Any thread.
int NikonSetValue(NikonState& state, int nType, int value);

// Asks the newest session for a picture, if there is one. Returns 1. Any thread.
int NikonShoot(NikonState& state);

}  // namespace nikon
