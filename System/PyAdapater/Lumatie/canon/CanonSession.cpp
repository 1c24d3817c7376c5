#include "canon/CanonSession.h"

#include <string>
#include <utility>

#include "EndsUnderWay.h"
#include "TetherEvents.h"
#include "Text.h"
#include "canon/EdSdkCodes.h"
#include "canon/EventHandlers.h"
#include "canon/PropertyCommands.h"
#include "canon/SessionCommands.h"
#include "platform/Platform.h"

namespace canon {

namespace {

using Sessions = std::vector<std::shared_ptr<CanonSession>>;

// Who uses the library in this process. The end of one session must not terminate it under
// another one, be it another tether object's or one that has started while the end was put off.
struct LibraryUse {
    std::mutex lock;     // held while the library is initialised or terminated
    unsigned users = 0;  // starts under way, and sessions
    Sessions ended;      // the library's handlers may use them until it is terminated
};

// Never destroyed: a worker whose session's end was put off may outlast the process's statics.
LibraryUse& libraryUse()
{
    static auto* const use = new LibraryUse;
    return *use;
}

// The workers that still have an end to do which was put off. Never destroyed either.
EndsUnderWay& endsUnderWay()
{
    static auto* const ends = new EndsUnderWay;
    return *ends;
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
        while (endsUnderWay().isAny() && m_processor.isRunning()) {
            platform::sleepFor(1);
        }
        return true;
    }

private:
    const Processor& m_processor;
};

bool initializeLibrary()
{
    const std::lock_guard<std::mutex> guard(libraryUse().lock);
    if (EdsInitializeSDK() != kOk) {
        return false;
    }
    ++libraryUse().users;
    return true;
}

// A start has found no camera. The library itself stays initialised.
void leaveLibrary()
{
    const std::lock_guard<std::mutex> guard(libraryUse().lock);
    --libraryUse().users;
}

// Sessions that have ended leave the library, which is terminated unless somebody else uses it.
// Returns the sessions that it does not know any more.
Sessions leaveLibrary(Sessions&& sessions, bool terminate)
{
    const std::lock_guard<std::mutex> guard(libraryUse().lock);
    Sessions& ended = libraryUse().ended;
    libraryUse().users -= static_cast<unsigned>(sessions.size());
    ended.insert(ended.end(), sessions.begin(), sessions.end());
    if (!terminate || libraryUse().users > 0) {
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
Selection selectFrom(EdsCameraListRef list, std::uint32_t count, const char* szInfo)
{
    Selection selection;
    EdsDeviceInfo info = {};
    for (std::uint32_t index = 0; index < count; ++index) {
        EdsCameraRef& camera = selection.camera;
        EdsError& error = selection.error;
        error = EdsGetChildAtIndex(list, static_cast<std::int32_t>(index), &camera);
        if (error == kOk) {
            error = EdsGetDeviceInfo(camera, &info);
            if (error == kOk && camera == nullptr) {
                error = kDeviceNotFound;
            }
        }
        if (camera == nullptr) {
            continue;
        }
        const std::string description =
            fieldText(info.szDeviceDescription, sizeof info.szDeviceDescription);
        if (szInfo != nullptr && equalIgnoringCase(description, szInfo)) {
            selection.subType = info.deviceSubType;
            break;
        }
        EdsRelease(camera);
        camera = nullptr;
    }
    return selection;
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
    selection = selectFrom(list, count, szInfo);
    if (list != nullptr) {
        EdsRelease(list);
    }
    return selection.camera != nullptr && selection.error == kOk;
}

std::unique_ptr<CameraModel> makeModel(const Selection& selection)
{
    if (selection.subType == 0) {
        return std::make_unique<CameraModelLegacy>(selection.camera);
    }
    return std::make_unique<CameraModel>(selection.camera);
}

// Starts the worker and posts what it does first.
void startWorker(CameraController& controller, CameraModel& model)
{
    Processor& processor = controller.processor();
    processor.startAndWait();
    if (endsUnderWay().isAny()) {
        processor.enqueue(std::make_unique<AwaitEndsCommand>(model, processor));
    }
    processor.enqueue(std::make_unique<OpenSessionCommand>(model));
    processor.enqueue(std::make_unique<GetPropertyCommand>(model, kPropProductName));
}

// The end of sessions whose workers have ended: cameras, library, and last our own objects, which
// the library's handlers may use until it was terminated.
void dispose(Sessions&& sessions, bool terminate)
{
    for (const auto& session : sessions) {
        if (session->m_camera != nullptr) {
            EdsRelease(session->m_camera);
        }
    }
    leaveLibrary(std::move(sessions), terminate).clear();
}

// Lets the own worker do the rest of the end when it has left the command that it is in.
void endOnOwnWorker(Processor& processor, Sessions&& sessions, bool terminate)
{
    const std::thread::id worker = std::this_thread::get_id();
    endsUnderWay().begin(worker);
    processor.endWith([rest = std::make_shared<Sessions>(std::move(sessions)), terminate, worker] {
        dispose(std::move(*rest), terminate);
        endsUnderWay().finish(worker);
    });
}

// Ends the workers, all at once, and waits for each but the one that the calling thread is.
void closeWorkers(const Sessions& sessions)
{
    for (const auto& session : sessions) {
        if (session->m_pController) {
            session->m_pController->requestClose();
        }
    }
    for (const auto& session : sessions) {
        if (session->m_pController) {
            session->m_pController->processor().join();
        }
    }
}

// The session whose worker is the thread `worker`; null when it is none's.
CanonSession* findSessionOf(std::thread::id worker, const Sessions& sessions)
{
    for (const auto& session : sessions) {
        if (session->m_pController && session->m_pController->processor().runsOn(worker)) {
            return session.get();
        }
    }
    return nullptr;
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

void setNewest(CanonState& state, std::shared_ptr<CanonSession> session)
{
    const std::lock_guard<std::mutex> guard(state.newestLock);
    state.newest = std::move(session);
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

int CanonInit(CanonState& state, Observer& tether, const char* szInfo)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    if (!initializeLibrary()) {
        return 0;
    }
    state.m_bSdkInitialized = true;

    Selection selection;
    const bool found = selectCamera(szInfo, selection);
    if (selection.camera == nullptr) {
        leaveLibrary();
        return 0;
    }
    const auto session = std::make_shared<CanonSession>();
    session->m_camera = selection.camera;
    state.sessions.push_back(session);
    if (!found) {
        return 0;
    }
    session->m_pModel = makeModel(selection);
    session->m_pController = std::make_unique<CameraController>(*session->m_pModel);
    session->m_pModel->addObserver(&tether);
    registerEventHandlers(session->m_camera, *session->m_pController);
    setNewest(state, session);
    startWorker(*session->m_pController, *session->m_pModel);
    return 1;
}

int CanonClose(CanonState& state, Observer& tether)
{
    Sessions sessions;
    bool terminate = false;
    {
        const std::lock_guard<std::mutex> guard(state.lock);
        setNewest(state, nullptr);
        sessions.swap(state.sessions);
        terminate = state.m_bSdkInitialized;
    }
    closeWorkers(sessions);
    if (const CanonSession* own = findSessionOf(std::this_thread::get_id(), sessions)) {
        own->m_pModel->removeObserver(&tether);
        endOnOwnWorker(own->m_pController->processor(), std::move(sessions), terminate);
    } else {
        dispose(std::move(sessions), terminate);
    }
    return 1;
}

bool CanonHasSessions(CanonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    return !state.sessions.empty();
}

void CanonCloseInPlaceOf(std::thread::id worker, CanonState& state)
{
    const std::lock_guard<std::mutex> guard(state.lock);
    CanonSession* own = findSessionOf(worker, state.sessions);
    if (own == nullptr) {
        return;
    }
    setNewest(state, nullptr);
    own->m_pController->requestClose();
    own->m_pController->processor().finish();
    own->m_pController->processor().endWith(nullptr);
    // The worker's frames, which nobody unwinds, still point to both.
    static_cast<void>(own->m_pModel.release());
    static_cast<void>(own->m_pController.release());
}

void CanonAwaitEnds(std::thread::id exiting)
{
    while (endsUnderWay().isAny(exiting)) {
        platform::sleepFor(1);
    }
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
