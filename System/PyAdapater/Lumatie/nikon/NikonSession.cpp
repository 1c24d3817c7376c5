#include "nikon/NikonSession.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "DebugLog.h"
#include "EndsUnderWay.h"
#include "TetherEvents.h"
#include "nikon/Console.h"
#include "nikon/EnumReader.h"
#include "nikon/MaidCommands.h"

namespace nikon {

namespace {

// A driver module's path has room for this many bytes, terminator included.
constexpr std::size_t kModulePathSize = 260;

// The literal 1 is deliberate: a camera under another id is closed with the rest of the tree.
constexpr std::int32_t kCameraId = 1;

constexpr auto kLookInterval = std::chrono::milliseconds(20);

// Sessions whose modules hang. Their threads may come back at any time.
void keepForEver(std::shared_ptr<NikonSession> session)
{
    static auto* const lock = new std::mutex;
    static auto* const kept = new std::vector<std::shared_ptr<NikonSession>>;
    const std::lock_guard<std::mutex> guard(*lock);
    kept->push_back(std::move(session));
}

// The ends that are under way, and the thread that ends the process. Never destroyed: a thread that
// was left behind may come back at any time.
struct Ends {
    EndsUnderWay underWay;
    std::atomic<std::thread::id> exiting{};
};

Ends& ends()
{
    static auto* const all = new Ends;
    return *all;
}

bool isExiting(std::thread::id thread)
{
    return thread != std::thread::id() && thread == ends().exiting;
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

NikonSession::NikonSession(PyCallback& tether, std::shared_ptr<MaidLibrary> library, Timing timing)
    : m_tether(tether),
      m_tree(std::make_shared<MaidTree>(std::move(library), timing)),
      m_reporting(m_tree, *this),
      m_acquisition(
          m_tree, [this](const std::string& text) { return send(TETHER_GENERAL, text); },
          [this] { return !m_endRequested; })
{}

NikonSession::~NikonSession()
{
    if (m_monitor.joinable()) {
        m_monitor.detach();
    }
}

bool NikonSession::open()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_idle = false;
    }
    const bool opened = m_tree->OpenModule() && m_tree->OpenSource() && !m_endRequested;
    if (opened) {
        startMonitor();
        return true;
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    m_idle = true;
    m_changed.notify_all();
    return false;
}

// The flags are set before the thread is there: it may clear them at once.
void NikonSession::startMonitor()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_bMonitorRun = m_endRequested ? 0 : 1;
    m_bMonitorBusy = 1;
    try {
        m_monitor = std::thread([self = shared_from_this()] { self->monitor(); });
        m_monitorId = m_monitor.get_id();
    } catch (const std::system_error& error) {
        DebugLog("::m_fnTether_Nikon_Monitor thread (err : 0x%x)",
                 static_cast<unsigned>(error.code().value()));
        m_bMonitorBusy = 0;
        m_idle = true;
        m_changed.notify_all();
    }
}

void NikonSession::monitor()
{
    {
        const PyThreadAllow allow;
        do {
            if (m_reporting.ReportNikonProperties() == 0) {
                break;
            }
            capture();
            m_acquisition.AcquireNewItems();
            m_bShootRequest = 0;
            pause();
        } while (m_bMonitorRun != 0);
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    m_bMonitorRun = 0;
    m_bMonitorBusy = 0;
    m_idle = true;
    m_changed.notify_all();
}

void NikonSession::capture()
{
    MaidDriver& driver = m_tree->driver();
    const MaidObjectPtr source = m_tree->source();
    if (!source || m_bShootRequest == 0) {
        return;
    }
    if (const auto info = FindCapability(driver, source, kMaidCapCapture)) {
        Console::print("[%s]\n", DescriptionOf(*info).c_str());
        StartCapability(driver, source, kMaidCapCapture);
    }
    driver.work(source);
}

void NikonSession::pause()
{
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait_for(guard, m_tree->driver().timing().pause,
                       [this] { return m_bMonitorRun == 0; });
}

bool NikonSession::isWanted()
{
    return !m_endRequested && m_wantsReports;
}

// Once the end was requested the tether object may be gone.
bool NikonSession::send(TetherType type, const std::string& text)
{
    if (m_endRequested) {
        return false;
    }
    if (type == TETHER_GENERAL) {
        DebugLog("NIKON TETHER_GENERAL=%s", text.c_str());
    }
    m_tether.Call("is", type, text.c_str());
    m_tree->driver().signs()->note();
    return !m_endRequested;
}

bool NikonSession::send(TetherType type, int value)
{
    if (m_endRequested) {
        return false;
    }
    m_tether.Call("ii", type, value);
    m_tree->driver().signs()->note();
    return !m_endRequested;
}

void NikonSession::set(const NikonSetting& setting)
{
    EnumReading reading;
    ReadEnumCapability(*m_tree, setting.capability, setting.position, reading);
}

void NikonSession::requestEnd()
{
    m_endRequested = true;
    m_tree->driver().enter(MaidDriver::Phase::stopping);
    const std::lock_guard<std::mutex> guard(m_lock);
    m_bMonitorRun = 0;
    m_changed.notify_all();
}

void NikonSession::end(std::thread::id parked)
{
    bool isParked = false;
    const bool answers = waitUntil([&] {
        isParked = !m_idle && (m_monitorId == parked || isExiting(m_monitorId));
        return m_idle || isParked;
    });
    if (!answers) {
        leaveBehind();
        return;
    }
    if (!isParked && m_monitor.joinable()) {
        m_monitor.join();
    }
    m_bShootRequest = 0;
    // On a thread of its own, for the module may hang in it.
    std::thread closer;
    try {
        closer = std::thread([self = shared_from_this()] { self->close(); });
    } catch (const std::system_error&) {
        close();
    }
    const bool closed = waitUntil([this] { return m_closed; });
    if (closer.joinable() && closed) {
        closer.join();
    } else if (closer.joinable()) {
        closer.detach();
    }
    if (!closed || m_silent) {
        leaveBehind();
    }
}

void NikonSession::close()
{
    MaidDriver& driver = m_tree->driver();
    driver.enter(MaidDriver::Phase::closing);
    bool silent = true;
    if (const MaidDriver::Guard inside{driver}) {
        if (const MaidObjectPtr root = m_tree->root()) {
            m_tree->CloseChild(root, kCameraId);
            m_tree->forgetSource();
            m_tree->CloseTree();
        }
        silent = driver.isSilent();
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    m_silent = silent;
    m_closed = true;
    m_changed.notify_all();
}

bool NikonSession::isClosed()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_closed;
}

// Waits for what m_lock guards; `done` is called under it. False when the module hangs.
bool NikonSession::waitUntil(const std::function<bool()>& done)
{
    std::unique_lock<std::mutex> guard(m_lock);
    while (!m_changed.wait_for(guard, kLookInterval, done)) {
        if (m_tree->driver().hangs()) {
            return false;
        }
    }
    return true;
}

// Everything that the module may still touch, and the module itself, stays for ever.
void NikonSession::leaveBehind()
{
    DebugLog("NIKON driver module does not answer: its session is left behind");
    m_tree->driver().noteLeftBehind();
    if (m_monitor.joinable()) {
        m_monitor.detach();
    }
    keepForEver(shared_from_this());
}

int NikonInit(NikonState& state, PyCallback& tether, const char* modulePath)
{
    if (std::strlen(modulePath) >= kModulePathSize) {
        DebugLog("NIKON driver module's path is longer than 259 bytes: %s", modulePath);
        return 0;
    }
    std::shared_ptr<MaidLibrary> library = MaidLibrary::load(modulePath);
    return library ? NikonStart(state, tether, std::move(library)) : 0;
}

int NikonStart(NikonState& state, PyCallback& tether, std::shared_ptr<MaidLibrary> library,
               Timing timing)
{
    const auto session = std::make_shared<NikonSession>(tether, std::move(library), timing);
    {
        const std::lock_guard<std::mutex> guard(state.lock);
        state.sessions.push_back(session);
    }
    if (session->open()) {
        return 1;
    }
    if (removeSession(state, session)) {
        session->requestEnd();
        session->end({});
    }
    return 0;
}

int NikonUninit(NikonState& state, std::thread::id parked)
{
    std::vector<std::shared_ptr<NikonSession>> sessions;
    {
        const std::lock_guard<std::mutex> guard(state.lock);
        sessions.swap(state.sessions);
    }
    for (const auto& session : sessions) {
        session->requestEnd();
    }
    for (const auto& session : sessions) {
        session->end(parked);
    }
    return 1;
}

bool NikonHasSessions(NikonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    return !state.sessions.empty();
}

EndUnderWay::EndUnderWay() : m_thread(std::this_thread::get_id())
{
    ends().underWay.begin(m_thread);
}

EndUnderWay::~EndUnderWay()
{
    ends().underWay.finish(m_thread);
}

void NikonAwaitEnds(std::thread::id exiting)
{
    ends().exiting = exiting;
    while (ends().underWay.isAny(exiting)) {
        platform::sleepFor(1);
    }
    ends().exiting = std::thread::id();
}

void NikonEndReports(NikonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    for (const auto& session : state.sessions) {
        session->endReports();
    }
}

int NikonSetValue(NikonState& state, int nType, int value)
{
    const std::optional<NikonSetting> setting = nikonSetting(nType, value);
    const std::shared_ptr<NikonSession> session = newestSession(state);
    if (setting && session) {
        session->set(*setting);
    }
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
