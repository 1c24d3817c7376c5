#include "nikon/NikonSession.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "Apart.h"
#include "DebugLog.h"
#include "Memory.h"
#include "TetherEvents.h"
#include "nikon/Console.h"
#include "nikon/EnumSetting.h"
#include "nikon/MaidCommands.h"

namespace nikon {

namespace {

// A driver module's path has room for this many bytes, terminator included.
constexpr std::size_t kModulePathSize = 260;

// The literal 1 is deliberate: a camera under another id is closed with the rest of the tree.
constexpr std::int32_t kCameraId = 1;

constexpr auto kLookInterval = std::chrono::milliseconds(20);

// The session whose monitor the calling thread is.
NikonSession*& monitored()
{
    thread_local NikonSession* session = nullptr;
    return session;
}

// Sessions whose modules do not even complete the closing: they may still write to anything.
void keepForEver(std::shared_ptr<NikonSession> session)
{
    static auto* const lock = new std::mutex;
    static auto* const kept = new std::vector<std::shared_ptr<NikonSession>>;
    const std::lock_guard<std::mutex> guard(*lock);
    kept->push_back(std::move(session));
}

std::shared_ptr<NikonSession> newestSession(NikonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    return state.sessions.empty() ? nullptr : state.sessions.back();
}

// Returns false when the session is not there any more: somebody else ends it.
bool removeSession(NikonState& state, const std::shared_ptr<NikonSession>& session)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    auto& sessions = state.sessions;
    const auto found = std::find(sessions.begin(), sessions.end(), session);
    if (found == sessions.end()) {
        return false;
    }
    sessions.erase(found);
    return true;
}

void endFailedStart(NikonState& state, const std::shared_ptr<NikonSession>& session)
{
    if (removeSession(state, session)) {
        session->requestEnd();
        session->end();
    }
}

// Takes all sessions out, so that nobody else ends them, and asks for their ends.
std::vector<std::shared_ptr<NikonSession>> takeSessions(NikonState& state)
{
    std::vector<std::shared_ptr<NikonSession>> sessions;
    {
        const std::lock_guard<std::mutex> guard(state.lock);
        sessions.swap(state.sessions);
    }
    for (const auto& session : sessions) {
        session->requestEnd();
    }
    return sessions;
}

}  // namespace

std::optional<NikonSetting> nikonSetting(int nType, int value)
{
    const auto position = static_cast<std::uint16_t>(value);
    switch (nType) {
        case TETHER_SHUTTERSPEED:
            return NikonSetting{kMaidCapShutterSpeed, position};
        case TETHER_APERTURE:
            return NikonSetting{kMaidCapAperture, position};
        case TETHER_ISO:
            return NikonSetting{kMaidCapSensitivity, position};
        case TETHER_WB:
            return NikonSetting{kMaidCapWhiteBalance, position};
        default:
            return std::nullopt;
    }
}

NikonSession::NikonSession(std::shared_ptr<EventReceiver> receiver,
                           std::shared_ptr<MaidLibrary> library, Timing timing)
    : m_receiver(std::move(receiver)),
      m_tree(std::make_shared<MaidTree>(std::move(library), timing)),
      m_reporting(m_tree, *this),
      m_acquisition(
          m_tree, [this](const std::string& text) { return send(TETHER_GENERAL, text); },
          [this] { return acquiresMore(); })
{}

NikonSession::~NikonSession()
{
    releaseMonitor();
}

// The monitor has left the session, and it may be the calling thread.
void NikonSession::releaseMonitor()
{
    if (m_monitor.get_id() == std::this_thread::get_id()) {
        m_monitor.detach();
    } else if (m_monitor.joinable()) {
        m_monitor.join();
    }
}

bool NikonSession::open()
{
    bool opened = false;
    try {
        opened = m_tree->OpenModule() && m_tree->OpenSource() && !m_endRequested;
    } catch (const std::bad_alloc&) {
        leave();
        throw;
    }
    if (!opened || !startMonitor()) {
        leave();
    }
    return opened;
}

// The flags are set before the thread is there: it may clear them at once. The thread takes over
// the start's place in the session; false when there is none.
bool NikonSession::startMonitor()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_bMonitorRun = m_endRequested ? 0 : 1;
    m_bMonitorBusy = 1;
    try {
        m_monitor = std::thread([self = shared_from_this()] { self->monitor(); });
        return true;
    } catch (const std::system_error& error) {
        DebugLog("::m_fnTether_Nikon_Monitor thread (err : 0x%x)",
                 static_cast<unsigned>(error.code().value()));
    } catch (const std::bad_alloc&) {
        DebugLog("NIKON there is not enough memory: the monitor is given up");
    }
    m_bMonitorBusy = 0;
    return false;
}

void NikonSession::monitor()
{
    monitored() = this;
    {
        const PyThreadAllow allow;
        while (cycle()) {
            pause();
            if (m_bMonitorRun == 0) {
                break;
            }
        }
    }
    monitored() = nullptr;
    m_bMonitorRun = 0;
    m_bMonitorBusy = 0;
    if (!m_parked) {
        leave();
    }
}

// Returns false when the camera does not answer any more, or nobody wants reports.
bool NikonSession::cycle()
{
    bool answers = true;
    doOrGiveUp("a report", [&] { answers = m_reporting.ReportNikonProperties() != 0; });
    if (!answers) {
        return false;
    }
    doOrGiveUp("a capture", [this] { capture(); });
    doOrGiveUp("an acquisition", [this] { m_acquisition.AcquireNewItems(); });
    endExposure();
    m_bShootRequest = 0;
    return true;
}

void NikonSession::capture()
{
    MaidDriver& driver = m_tree->driver();
    const MaidObjectPtr source = m_tree->source();
    if (!source || m_bShootRequest == 0 || !beginExposure()) {
        return;
    }
    m_acquisition.beginExposure();
    if (const auto info = FindCapability(driver, source, kMaidCapCapture)) {
        Console::print("[%s]\n", DescriptionOf(*info).c_str());
        StartCapability(driver, source, kMaidCapCapture);
    }
    driver.work(source);
}

// False when the end was requested: no exposure begins any more.
bool NikonSession::beginExposure()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_exposing = !m_endRequested;
    return m_exposing;
}

// The picture has come, or none will.
void NikonSession::endExposure()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_exposing = false;
}

bool NikonSession::acquiresMore() const
{
    return !m_endRequested || (m_owesPicture && !m_tree->driver().isExposureTimeOver());
}

void NikonSession::pause()
{
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait_for(guard, m_tree->driver().timing().pause,
                       [this] { return m_bMonitorRun == 0; });
}

bool NikonSession::isWanted()
{
    return !m_endRequested && m_receiver->vendor() == VENDOR_NIKON;
}

bool NikonSession::send(TetherType type, const std::string& text)
{
    if (m_endRequested) {
        return false;
    }
    if (type == TETHER_GENERAL) {
        DebugLog("NIKON TETHER_GENERAL=%s", text.c_str());
        endExposure();
    }
    m_receiver->Call("is", type, text.c_str());
    m_tree->driver().heartbeat()->note();
    return !m_endRequested;
}

bool NikonSession::send(TetherType type, int value)
{
    if (m_endRequested) {
        return false;
    }
    m_receiver->Call("ii", type, value);
    m_tree->driver().heartbeat()->note();
    return !m_endRequested;
}

bool NikonSession::set(const NikonSetting& setting, bool atOnce)
{
    if (!enter()) {
        return true;
    }
    bool isFree = true;
    try {
        isFree = trySet(setting, atOnce);
    } catch (const std::bad_alloc&) {
        leave();
        throw;
    }
    leave();
    return isFree;
}

bool NikonSession::trySet(const NikonSetting& setting, bool atOnce)
{
    std::optional<MaidDriver::Guard> guard;
    if (atOnce && !guard.emplace(m_tree->driver(), std::try_to_lock)) {
        return false;
    }
    SetEnumPosition(*m_tree, setting.capability, setting.position);
    return true;
}

void NikonSession::requestEnd()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_owesPicture = m_exposing;
    m_acquisition.keepToExposure();
    m_endRequested = true;
    m_tree->driver().enter(MaidDriver::Phase::stopping);
    m_bMonitorRun = 0;
    m_changed.notify_all();
}

// The calling thread is about to use the module; false when the session ends.
bool NikonSession::enter()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_endRequested) {
        return false;
    }
    ++m_atWork;
    return true;
}

// The calling thread uses the module no more.
void NikonSession::leave()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        --m_atWork;
        m_changed.notify_all();
        if (m_atWork > 0 || !m_lastCloses) {
            return;
        }
        m_lastCloses = false;
    }
    close();
}

void NikonSession::end()
{
    std::unique_lock<std::mutex> guard(m_lock);
    const auto everybodyLeft = [this] { return m_atWork == 0; };
    while (!m_changed.wait_for(guard, kLookInterval, everybodyLeft)) {
        if (m_tree->driver().hangs()) {
            leaveBehind();
            return;
        }
    }
    const bool parked = m_parked;
    guard.unlock();
    if (!parked && m_monitor.joinable()) {
        m_monitor.join();
    }
    close();
}

void NikonSession::letEnd(std::shared_ptr<void> underWay)
{
    const bool isMonitor = monitored() == this;
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_underWay = std::move(underWay);
        if (m_atWork > 0 && !isMonitor) {
            m_lastCloses = true;
            return;
        }
    }
    if (isMonitor) {
        close();
        return;
    }
    runApart([self = shared_from_this()] { self->close(); });
}

void NikonSession::park()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_parked = true;
    }
    leave();
}

// Closes the objects. When another thread of the session hangs in the module, that one does it.
void NikonSession::close()
{
    m_bShootRequest = 0;
    m_tree->driver().enter(MaidDriver::Phase::closing);
    bool closed = false;
    doOrGiveUp("the closing", [&] { closed = closeObjects(); });
    std::shared_ptr<void> underWay;  // let go of without the lock
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_atWork == 0 && closed) {
        if (m_leftBehind) {
            m_tree->driver().noteBack();
        }
        // What is left is let go of by the last who knows this object, `m_underWay` with it. A
        // parked monitor does so never.
        if (m_parked) {
            underWay.swap(m_underWay);
        }
        return;
    }
    underWay.swap(m_underWay);
    if (m_atWork > 0 && !closed) {
        leaveBehind();
    } else if (!closed) {
        DebugLog("NIKON driver module does not complete its closing: its session stays");
        m_tree->driver().noteLeftBehind();
        releaseMonitor();
        keepForEver(shared_from_this());
    }
}

// False when the module did not complete what was asked of it.
bool NikonSession::closeObjects()
{
    MaidDriver& driver = m_tree->driver();
    const MaidDriver::Guard inside(driver);
    if (!inside) {
        return false;
    }
    if (const MaidObjectPtr root = m_tree->root()) {
        m_tree->CloseChild(root, kCameraId);
        m_tree->forgetSource();
        m_tree->CloseTree();
    }
    return !driver.isSilent();
}

// Everything that the module may still touch, and the module itself, stays until the thread that is
// in it comes back. Called with m_lock held.
void NikonSession::leaveBehind()
{
    m_lastCloses = true;
    if (m_leftBehind) {
        return;
    }
    m_leftBehind = true;
    m_tree->driver().noteLeftBehind();
    DebugLog("NIKON driver module does not answer: its session is left behind");
}

int NikonInit(NikonState& state, const std::shared_ptr<EventReceiver>& receiver,
              const char* modulePath)
{
    if (std::strlen(modulePath) >= kModulePathSize) {
        DebugLog("NIKON driver module's path is longer than 259 bytes: %s", modulePath);
        return 0;
    }
    std::shared_ptr<MaidLibrary> library = MaidLibrary::load(modulePath);
    if (!library) {
        Console::puts("Module object can't be opened.\n");
        return 0;
    }
    return NikonStart(state, receiver, std::move(library));
}

int NikonStart(NikonState& state, const std::shared_ptr<EventReceiver>& receiver,
               std::shared_ptr<MaidLibrary> library, Timing timing)
{
    const auto session = std::make_shared<NikonSession>(receiver, std::move(library), timing);
    {
        const std::lock_guard<std::mutex> guard(state.lock);
        state.sessions.push_back(session);
    }
    try {
        if (session->open()) {
            return 1;
        }
    } catch (const std::bad_alloc&) {
        endFailedStart(state, session);
        throw;
    }
    endFailedStart(state, session);
    return 0;
}

void NikonUninit(NikonState& state)
{
    for (const auto& session : takeSessions(state)) {
        session->end();
    }
}

void NikonRequestEnd(NikonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    for (const auto& session : state.sessions) {
        session->requestEnd();
    }
}

void NikonLetEnd(NikonState& state, const std::shared_ptr<void>& underWay)
{
    for (const auto& session : takeSessions(state)) {
        session->letEnd(underWay);
    }
}

void NikonLeaveMonitor()
{
    if (monitored() != nullptr) {
        monitored()->park();
    }
}

bool NikonHasSessions(NikonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    return !state.sessions.empty();
}

int NikonSetValue(NikonState& state, int nType, int value)
{
    const std::optional<NikonSetting> setting = nikonSetting(nType, value);
    std::shared_ptr<NikonSession> session = newestSession(state);
    if (!setting || !session || session->set(*setting, true)) {
        return 1;
    }
    // Another thread may need the module for long, and Python must run on meanwhile.
    const PyThreadAllow allow;
    session->set(*setting, false);
    // Whoever is the last to let go of a session unloads the module: not with the interpreter lock.
    session = nullptr;
    return 1;
}

int NikonShoot(NikonState& state)
{
    if (const std::shared_ptr<NikonSession> session = newestSession(state)) {
        session->shoot();
    }
    return 1;
}

}  // namespace nikon
