#include "canon/CanonSession.h"

#include <atomic>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "EdSdkCodes.h"
#include "OfProcess.h"
#include "TetherEvents.h"
#include "Text.h"
#include "canon/EventHandlers.h"
#include "canon/PropertyCommands.h"
#include "canon/Roomy.h"
#include "canon/SessionCommands.h"
#include "platform/Platform.h"

namespace canon {

namespace {

using Sessions = std::vector<std::shared_ptr<CanonSession>>;

// Starts under way, and sessions. A process that was split off counts its parent's for ever: the
// library that those use is not its own to terminate.
std::atomic<unsigned> g_users{0};

// How the library is used in this process. The end of one session must not terminate it under
// another one, be it another tether object's or one that has started while the end was put off.
struct LibraryUse {
    std::mutex lock;  // held while the library is initialised or terminated, or g_users changes
    Sessions ended;  // the library's handlers may use them until it is terminated; has room for all
    std::atomic<unsigned> putOff{0};  // ends that workers have still to do
};

// A worker whose session's end was put off may outlast the process's statics.
LibraryUse& libraryUse()
{
    return ofThisProcess<LibraryUse>();
}

// Holds a new session's first command back until the ends that were put off are done, so that an
// old session is not closed after the new one was opened.
class AwaitEndsCommand : public Command
{
public:
    AwaitEndsCommand(CameraModel& model, const Processor& processor)
        : Command(model), m_processor(processor)
    {}

    bool execute() override
    {
        while (libraryUse().putOff > 0 && m_processor.isRunning()) {
            platform::sleepFor(1);
        }
        return true;
    }

private:
    const Processor& m_processor;
};

bool initializeLibrary()
{
    LibraryUse& use = libraryUse();
    const std::lock_guard<std::mutex> guard(use.lock);
    use.ended.reserve(use.ended.size() + g_users + 1);
    if (EdsInitializeSDK() != kOk) {
        return false;
    }
    ++g_users;
    return true;
}

// A start has found no camera. The library itself stays initialised.
void leaveLibrary()
{
    const std::lock_guard<std::mutex> guard(libraryUse().lock);
    --g_users;
}

// Sessions that have ended leave the library, which is terminated unless somebody else uses it.
// Returns the sessions that it does not know any more.
Sessions leaveLibrary(const Sessions& sessions, bool terminate)
{
    const std::lock_guard<std::mutex> guard(libraryUse().lock);
    Sessions& ended = libraryUse().ended;
    g_users -= static_cast<unsigned>(sessions.size());
    ended.insert(ended.end(), sessions.begin(), sessions.end());
    if (!terminate || g_users > 0) {
        return {};
    }
    EdsTerminateSDK();
    return std::exchange(ended, {});
}

// The camera that a start has chosen, and what the library said of it last.
struct Selection {
    EdsCameraRef camera = nullptr;
    std::uint32_t subType = 0;
    EdsError error = kOk;
};

// Goes through the cameras of the list until one is described as `szInfo`. The record is compared
// as it stands, even after a failed read that gave a camera all the same; its error then rejects
// the session.
void selectFrom(EdsCameraListRef list, std::uint32_t count, const char* szInfo,
                Selection& selection)
{
    Roomy<EdsDeviceInfo> info;
    for (std::uint32_t index = 0; index < count; ++index) {
        EdsCameraRef& camera = selection.camera;
        EdsError& error = selection.error;
        error = EdsGetChildAtIndex(list, static_cast<std::int32_t>(index), &camera);
        if (error == kOk) {
            error = EdsGetDeviceInfo(camera, info.toFill());
            if (error == kOk && camera == nullptr) {
                error = kDeviceNotFound;
            }
        }
        if (camera == nullptr) {
            continue;
        }
        const std::string description =
            fieldText(info->szDeviceDescription, sizeof info->szDeviceDescription);
        if (szInfo != nullptr && equalIgnoringCase(description, szInfo)) {
            selection.subType = info->deviceSubType;
            break;
        }
        EdsRelease(camera);
        camera = nullptr;
    }
}

// Returns whether a camera of that description was found; `selection` may hold one all the same.
bool selectCamera(const char* szInfo, Selection& selection)
{
    EdsCameraListRef list = nullptr;
    std::uint32_t count = 0;
    if (EdsGetCameraList(&list) != kOk) {
        return false;
    }
    if (EdsGetChildCount(list, &count) != kOk || count == 0) {
        // Deliberate: the list of a start that found nobody is left to the library.
        return false;
    }
    const auto release = [](EdsCameraListRef taken) { EdsRelease(taken); };
    const std::unique_ptr<std::remove_pointer_t<EdsCameraListRef>, decltype(release)> owned(
        list, release);
    selectFrom(list, count, szInfo, selection);
    return selection.camera != nullptr && selection.error == kOk;
}

std::unique_ptr<CameraModel> makeModel(const Selection& selection)
{
    if (selection.subType == 0) {
        return std::make_unique<CameraModelLegacy>(selection.camera);
    }
    return std::make_unique<CameraModel>(selection.camera);
}

// Posts what the worker does first and starts it, last of all: without memory there is no worker
// that would never open its session.
void startWorker(const std::shared_ptr<CanonSession>& session)
{
    Processor& processor = session->m_pController->processor();
    CameraModel& model = *session->m_pModel;
    if (libraryUse().putOff > 0) {
        processor.enqueue(std::make_unique<AwaitEndsCommand>(model, processor));
    }
    processor.enqueue(std::make_unique<OpenSessionCommand>(model));
    processor.enqueue(std::make_unique<GetPropertyCommand>(model, kPropProductName));
    processor.startAndWait(session);
}

void setNewest(CanonState& state, std::shared_ptr<CanonSession> session)
{
    const std::lock_guard<std::mutex> guard(state.newestLock);
    state.newest = std::move(session);
}

// What was posted to a worker that never got a thread goes back to the library before the camera.
void discardCommands(CanonSession& session)
{
    if (session.m_pController) {
        session.m_pController->processor().discard();
    }
}

// Makes a session with the selected camera, whose reference it has already.
void startSession(CanonState& state, const std::shared_ptr<CanonSession>& session,
                  const Selection& selection)
{
    session->m_pModel = makeModel(selection);
    session->m_pController = std::make_unique<CameraController>(*session->m_pModel);
    session->m_pModel->addObserver(session->m_reporter.get());
    registerEventHandlers(session->m_camera, *session->m_pController);
    const std::shared_ptr<CanonSession> before = state.newest;
    setNewest(state, session);
    try {
        startWorker(session);
    } catch (const std::bad_alloc&) {
        setNewest(state, before);
        discardCommands(*session);
        throw;
    }
}

const char* settingAction(int nType)
{
    switch (nType) {
        case TETHER_SHUTTERSPEED:
            return "set_Tv";
        case TETHER_APERTURE:
            return "set_Av";
        case TETHER_ISO:
            return "set_ISOSpeed";
        case TETHER_WB:
            return "set_WB";
        case TETHER_COLORTEMP:
            return "set_ColorTemp";
        default:
            return nullptr;
    }
}

// Hands an action to the newest session, which an end on another thread cannot destroy meanwhile.
void perform(CanonState& state, const ActionEvent& action)
{
    const std::shared_ptr<CanonSession> session = [&] {
        const std::lock_guard<std::mutex> guard(state.newestLock);
        return state.newest;
    }();
    if (session) {
        session->m_pController->actionPerformed(action);
    }
}

}  // namespace

// The end of a state's sessions, in the hands of all who have a part of it to do. Takes no memory.
class CanonEnd
{
public:
    // Takes the sessions out of `state`; first of all, once.
    void begin(CanonState& state, std::shared_ptr<void> underWay)
    {
        m_underWay = std::move(underWay);
        const std::lock_guard<std::mutex> guard(state.lock);
        setNewest(state, nullptr);
        m_sessions.swap(state.sessions);
        m_terminates = *state.m_bSdkInitialized;
        m_left = m_sessions.size();
    }

    // The same ones until this is destroyed.
    const Sessions& sessions() const { return m_sessions; }

    // Gives back the camera of a session whose worker has ended, after what was still posted to it.
    // After the last one the library is left, and then our own objects go, which its handlers may
    // use until it was terminated. In an apartment of COM.
    void dispose(CanonSession& session)
    {
        discardCommands(session);
        if (session.m_camera != nullptr) {
            EdsRelease(session.m_camera);
        }
        if (--m_left == 0) {
            leave();
        }
    }

    // Leaves the library; for an end without sessions, which have done so otherwise. In an
    // apartment of COM.
    void leave() { leaveLibrary(m_sessions, m_terminates).clear(); }

    // Does the part of the sessions that have no worker, or of an end without sessions, and lets
    // go of the hold.
    void endIdle()
    {
        const std::shared_ptr<CanonEnd> held = std::move(m_held);
        const platform::ComApartment apartment;
        for (const auto& session : m_sessions) {
            if (session->m_hasNoWorker) {
                dispose(*session);
            }
        }
        if (m_sessions.empty()) {
            leave();
        }
    }

    // Keeps this alive until `endIdle`.
    void hold(std::shared_ptr<CanonEnd> self) { m_held = std::move(self); }

private:
    std::shared_ptr<void> m_underWay;
    std::shared_ptr<CanonEnd> m_held;
    Sessions m_sessions;
    bool m_terminates = false;
    std::atomic<std::size_t> m_left{0};
};

namespace {

// What a worker does for its session's end when it has left its loop.
void endOnWorker(CanonSession& session)
{
    std::shared_ptr<CanonEnd> end = std::move(session.m_end);
    end->dispose(session);
    --libraryUse().putOff;
    // The process may end when nobody keeps the end any more.
    session.m_pController->processor().keepToTheEnd(std::move(end));
}

std::shared_ptr<CanonEnd> takeNextEnd(CanonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    return state.nextEnd ? std::move(state.nextEnd) : std::make_shared<CanonEnd>();
}

// Has the session's worker end it; false when there is none.
bool letWorkerEnd(CanonSession& session, const std::shared_ptr<CanonEnd>& end)
{
    if (!session.m_pController) {
        return false;
    }
    ++libraryUse().putOff;
    session.m_end = end;
    // By a pointer alone, so that a std::function needs no memory for it: the thread keeps it
    // valid.
    if (!session.m_pController->processor().endWith([own = &session] { endOnWorker(*own); })) {
        session.m_end = nullptr;
        --libraryUse().putOff;
        return false;
    }
    session.m_pController->requestClose();
    return true;
}

}  // namespace

int CanonInit(CanonState& state, std::shared_ptr<Observer> reporter, const char* szInfo)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    if (!state.nextEnd) {
        state.nextEnd = std::make_shared<CanonEnd>();
    }
    const auto session = std::make_shared<CanonSession>();
    state.sessions.reserve(state.sessions.size() + 1);
    if (!initializeLibrary()) {
        return 0;
    }
    *state.m_bSdkInitialized = true;

    Selection selection;
    bool found = false;
    try {
        found = selectCamera(szInfo, selection);
    } catch (const std::bad_alloc&) {
        if (selection.camera != nullptr) {
            EdsRelease(selection.camera);
        }
        leaveLibrary();
        throw;
    }
    if (selection.camera == nullptr) {
        leaveLibrary();
        return 0;
    }
    session->m_camera = selection.camera;
    state.sessions.push_back(session);
    if (!found) {
        return 0;
    }
    session->m_reporter = std::move(reporter);
    startSession(state, session, selection);
    return 1;
}

int CanonClose(CanonState& state)
{
    CanonEnd end;
    end.begin(state, nullptr);
    for (const auto& session : end.sessions()) {
        if (session->m_pController) {
            session->m_pController->requestClose();
        }
    }
    for (const auto& session : end.sessions()) {
        if (session->m_pController) {
            session->m_pController->processor().join();
        }
    }
    const platform::ComApartment apartment;
    for (const auto& session : end.sessions()) {
        end.dispose(*session);
    }
    if (end.sessions().empty()) {
        end.leave();
    }
    return 1;
}

void CanonLetEnd(CanonState& state, std::shared_ptr<void> underWay, const Apart& apart)
{
    const std::shared_ptr<CanonEnd> end = takeNextEnd(state);
    end->begin(state, std::move(underWay));
    bool isDone = !end->sessions().empty();
    for (const auto& session : end->sessions()) {
        session->m_hasNoWorker = !letWorkerEnd(*session, end);
        isDone = isDone && !session->m_hasNoWorker;
    }
    if (!isDone) {
        end->hold(end);
        apart([own = end.get()] { own->endIdle(); });
    }
}

bool CanonHasSessions(CanonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    return !state.sessions.empty();
}

int CanonSetValue(CanonState& state, int nType, std::uint32_t value)
{
    if (const char* action = settingAction(nType)) {
        perform(state, ActionEvent(action, &value));
    }
    return 1;
}

int CanonShoot(CanonState& state)
{
    perform(state, ActionEvent("TakePicture"));
    return 1;
}

}  // namespace canon
