// What a tether object has from an Init to the Uninit that ends it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "EventReceiver.h"
#include "SessionEnds.h"
#include "canon/CanonSession.h"
#include "nikon/NikonSession.h"

// The sessions that were started since the first Init, and what they tell the host through.
//
// States: open, where sessions may be started and driven; then, for good, ended. One caller ends
// it. Shared by the tether object, by whoever ends it, and by starts under way, so that none of
// them has to care whether the object is still there.
class Tethering
{
public:
    // A tethering of the object `owner`. `sdkInitialized`: whether that object has ever initialised
    // Canon's library.
    static std::shared_ptr<Tethering> make(std::uint64_t owner, canon::SdkFlag sdkInitialized);

    Tethering(const Tethering&) = delete;
    Tethering& operator=(const Tethering&) = delete;
    ~Tethering() = default;

    EventReceiver& receiver() { return *m_receiver; }

    // Whether this process was split off since the start: the sessions are the other process's.
    bool isOthers() const;

    // Starts a session with the camera that `szInfo` names, and returns 1 or 0. When the end comes
    // meanwhile it waits for the start and ends that session, too. Interpreter lock not held.
    int start(const char* szInfo);

    // Drive the newest session of the maker that the host is served by. Any thread.
    void shoot();
    void setValue(int nType, int value);

    // Takes the end upon the caller, who then calls `end` or `letEnd`; null when somebody else has
    // done so. Any thread.
    std::shared_ptr<SessionEnd> claimEnd();

    // Ends all sessions, and returns when they are over. Not on a thread that is inside the host's
    // callable. Interpreter lock not held.
    void end();

    // Has all sessions ended by their own threads, for a caller that must not wait for them: it is
    // inside the host's callable, or is the end of the interpreter. `apart` is given what there is
    // no such thread for. Interpreter lock not held.
    void letEnd(std::shared_ptr<SessionEnd> end, const canon::Apart& apart);

private:
    explicit Tethering(canon::SdkFlag sdkInitialized);

    int startMaker(const char* szInfo);
    bool endsCanon();
    bool beginStart();
    void finishStart();
    void letSessionsEnd(const std::shared_ptr<SessionEnd>& end, const canon::Apart& apart);

    const unsigned long m_process;
    std::atomic<std::int32_t> m_nVendor{VENDOR_NONE};  // as the last start has chosen it
    const std::shared_ptr<EventReceiver> m_receiver;
    canon::CanonState m_canon;
    nikon::NikonState m_nikon;

    std::mutex m_lock;  // guards the fields below; held for a moment only
    std::condition_variable m_started;
    std::shared_ptr<SessionEnd> m_end;        // until it is claimed
    std::shared_ptr<SessionEnd> m_endBehind;  // what the last start under way does, when it is done
    bool m_ended = false;
    unsigned m_starts = 0;  // under way
};
