#include "Lumatie.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "DebugLog.h"
#include "SignsOfLife.h"
#include "TetherTexts.h"
#include "canon/CanonReporting.h"
#include "canon/CanonSession.h"
#include "nikon/NikonSession.h"
#include "platform/Platform.h"

namespace {

using namespace std::chrono_literals;

// How long the interpreter's end waits for a session that gives no sign of life.
constexpr auto kExitPatience = 10s;

// Any of these bits says that a file which can be a driver module is at the path.
constexpr std::uint32_t kFileAttributes =
    platform::kAttributeReadOnly | platform::kAttributeArchive | platform::kAttributeNormal;

// Every tether object there is, for the end of the interpreter.
std::mutex g_objectsLock;  // guards g_objects
std::vector<Lumatie*> g_objects;

std::vector<Lumatie*> liveObjects()
{
    const std::lock_guard<std::mutex> guard(g_objectsLock);
    return g_objects;
}

bool isLive(const Lumatie* object)
{
    const std::vector<Lumatie*> objects = liveObjects();
    return std::find(objects.begin(), objects.end(), object) != objects.end();
}

// Neither joined nor freed: a session whose threads and locks are another process's.
void keepForEver(std::shared_ptr<void> state)
{
    static auto* const kept = new std::vector<std::shared_ptr<void>>;
    kept->push_back(std::move(state));
}

bool namesFile(const char* path)
{
    const std::uint32_t attributes = platform::fileAttributes(path);
    return attributes != platform::kNoAttributes && (attributes & kFileAttributes) != 0;
}

// Waits for it, but not after there was no sign of life for too long.
bool waitPatiently(const std::future<void>& done)
{
    unsigned signs = signsOfLife();
    auto lastSign = std::chrono::steady_clock::now();
    while (done.wait_for(100ms) != std::future_status::ready) {
        const auto now = std::chrono::steady_clock::now();
        if (signs != signsOfLife()) {
            signs = signsOfLife();
            lastSign = now;
        } else if (now - lastSign > kExitPatience) {
            return false;
        }
    }
    return true;
}

// Runs each of `works` on a thread of its own, and leaves behind those that give no sign of life
// for too long. Returns whether all are done.
bool runPatiently(const std::vector<std::function<void()>>& works)
{
    std::vector<std::future<void>> results;
    std::vector<std::thread> workers;
    for (const auto& work : works) {
        std::packaged_task<void()> task(work);
        results.push_back(task.get_future());
        workers.emplace_back(std::move(task));
    }
    const bool areDone = std::all_of(results.begin(), results.end(), waitPatiently);
    for (std::thread& worker : workers) {
        if (areDone) {
            worker.join();
        } else {
            worker.detach();
        }
    }
    return areDone;
}

}  // namespace

Lumatie::Lumatie()
    : m_canon(std::make_shared<canon::CanonState>()), m_nikon(std::make_shared<nikon::NikonState>())
{
    readDebugLogSwitch();

    const std::lock_guard<std::mutex> guard(g_objectsLock);
    g_objects.push_back(this);
}

Lumatie::~Lumatie()
{
    {
        const std::lock_guard<std::mutex> guard(g_objectsLock);
        g_objects.erase(std::remove(g_objects.begin(), g_objects.end(), this), g_objects.end());
    }
    Uninit();
}

BOOL Lumatie::Init(const char* szInfo, const char* szExportFolder, PyObject* callback)
{
    if (isCopy()) {
        letGo();
    }
    g_szExportFolder.set(szExportFolder);
    g_szLastFile.clear();
    SetCallback(callback);
    if (interpreterIsEnding()) {
        // Nobody would end the session any more.
        return 0;
    }

    m_process = platform::processNumber();

    const PyThreadAllow allow;
    if (namesFile(szInfo)) {
        m_nVendor = VENDOR_NIKON;
        return nikon::NikonInit(*m_nikon, *this, szInfo);
    }
    m_nVendor = VENDOR_CANON;
    nikon::NikonEndReports(*m_nikon);
    return canon::CanonInit(*m_canon, *this, szInfo);
}

BOOL Lumatie::UpdateExportFolder(const char* szExportFolder)
{
    g_szExportFolder.set(szExportFolder);
    g_szLastFile.clear();
    return 1;
}

BOOL Lumatie::Uninit()
{
    std::function<void()> endBackend = letGo();
    if (!endBackend) {
        return 0;
    }
    // Without the interpreter lock the object may be deleted: nothing of it is touched any more.
    const PyThreadAllow allow;
    endBackend();
    endBackend = nullptr;
    return 1;
}

bool Lumatie::isCopy() const
{
    return m_nVendor != VENDOR_NONE && m_process != platform::processNumber();
}

std::function<void()> Lumatie::letGo()
{
    const bool isOthers = isCopy();
    const int vendor = m_nVendor.exchange(VENDOR_NONE);
    if (vendor == VENDOR_NONE) {
        return nullptr;
    }
    if (isOthers) {
        keepForEver(std::exchange(m_canon, std::make_shared<canon::CanonState>()));
        keepForEver(std::exchange(m_nikon, std::make_shared<nikon::NikonState>()));
        SetCallback(nullptr);
        return [] {};
    }
    // Before code of the host runs, which may let the interpreter end.
    const auto underWay =
        nikon::NikonHasSessions(*m_nikon) ? std::make_shared<const nikon::EndUnderWay>() : nullptr;
    g_szExportFolder.clear();
    g_szLastFile.clear();
    SetCallback(nullptr);
    return [underWay, vendor, canon = m_canon, nikon = m_nikon,
            self = static_cast<canon::Observer*>(this), caller = std::this_thread::get_id()] {
        if (vendor == VENDOR_CANON || canon::CanonHasSessions(*canon)) {
            canon::CanonClose(*canon, *self);
        }
        nikon::NikonUninit(*nikon, caller);
    };
}

BOOL Lumatie::Shoot()
{
    if (isCopy()) {
        return 1;
    }
    if (m_nVendor == VENDOR_NIKON) {
        nikon::NikonShoot(*m_nikon);
    } else if (m_nVendor == VENDOR_CANON) {
        canon::CanonShoot(*m_canon);
    }
    return 1;
}

BOOL Lumatie::SetValue(int nType, int value)
{
    if (isCopy()) {
        return 1;
    }
    if (m_nVendor == VENDOR_NIKON) {
        nikon::NikonSetValue(*m_nikon, nType, value);
    } else if (m_nVendor == VENDOR_CANON) {
        canon::CanonSetValue(*m_canon, nType, static_cast<std::uint32_t>(value));
    }
    return 1;
}

void Lumatie::update(canon::Observable* from, const canon::CameraEvent& event)
{
    if (m_nVendor == VENDOR_CANON) {
        canon::reportToHost(*this, *static_cast<const canon::CameraModel*>(from), event);
    }
}

void Lumatie::endAllSessions()
{
    dropAllEvents();

    // Letting go runs code of the host, which may make and delete objects. The sessions end side by
    // side: one that goes on while another one hangs would give signs of life for ever.
    const std::thread::id exiting = std::this_thread::get_id();
    std::vector<std::function<void()>> ends;
    for (Lumatie* object : liveObjects()) {
        if (isLive(object) && !object->isCopy()) {
            ends.emplace_back([canon = object->m_canon, end = object->letGo(), exiting] {
                canon::CanonCloseInPlaceOf(exiting, *canon);
                if (end) {
                    end();
                }
            });
        }
    }
    const auto awaitEnds = [exiting] {
        canon::CanonAwaitEnds(exiting);
        nikon::NikonAwaitEnds(exiting);
    };
    const PyThreadAllow allow;
    if (!runPatiently(ends) || !runPatiently({awaitEnds})) {
        canon::Observable::silenceAll();
    }
}
