#include "Lumatie.h"

#include <functional>
#include <utility>
#include <vector>

#include "Apart.h"
#include "DebugLog.h"
#include "TetherTexts.h"
#include "Tethering.h"
#include "canon/Processor.h"
#include "nikon/Console.h"
#include "platform/Platform.h"

namespace {

using Work = std::function<void()>;

// Neither joined nor freed: sessions whose threads and locks are another process's.
void keepForEver(std::shared_ptr<Tethering> tethering)
{
    static auto* const kept = new std::vector<std::shared_ptr<Tethering>>;
    kept->push_back(std::move(tethering));
}

void runHere(const Work& work)
{
    work();
}

// Lets go of what the host has given, and runs its code for that. Interpreter lock held.
void detachSessions(Tethering& tethering)
{
    g_szLastFile.clear();
    tethering.receiver().detach();
}

}  // namespace

Lumatie::Lumatie()
    : m_number(SessionEnds::newOwner()), m_bSdkInitialized(std::make_shared<std::atomic<bool>>())
{
    readDebugLogSwitch();
}

Lumatie::~Lumatie()
{
    Uninit();
    const PyThreadAllow allow;
    SessionEnds::await(m_number);
}

std::shared_ptr<Tethering> Lumatie::tethering() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_tethering && !m_tethering->isOthers() ? m_tethering : nullptr;
}

// Makes a new one when the last one was ended, also by what runs when its callable is dropped. Null
// when the interpreter is ending: nobody would end it any more.
std::shared_ptr<Tethering> Lumatie::openTethering(PyObject* callback)
{
    while (!PyCallback::interpreterIsEnding()) {
        std::shared_ptr<Tethering> open;
        {
            const std::lock_guard<std::mutex> guard(m_lock);
            if (!m_tethering) {
                m_tethering = Tethering::make(m_number, m_bSdkInitialized);
            }
            open = m_tethering;
        }
        if (open->receiver().adopt(callback)) {
            return open;
        }
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_tethering == open) {
            m_tethering = nullptr;
        }
    }
    return nullptr;
}

BOOL Lumatie::Init(const char* szInfo, const char* szExportFolder, PyObject* callback)
{
    if (!tethering()) {
        // What is there may be another process's.
        Uninit();
    }
    g_szExportFolder.set(szExportFolder);
    g_szLastFile.clear();
    const std::shared_ptr<Tethering> open = openTethering(callback);
    const PyThreadAllow allow;
    return open ? open->start(szInfo) : 0;
}

BOOL Lumatie::UpdateExportFolder(const char* szExportFolder)
{
    g_szExportFolder.set(szExportFolder);
    g_szLastFile.clear();
    return 1;
}

BOOL Lumatie::Uninit()
{
    std::shared_ptr<Tethering> ended;
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        ended = std::move(m_tethering);
    }
    if (ended && ended->isOthers()) {
        ended->receiver().detach();
        keepForEver(std::move(ended));
        return 1;
    }
    std::shared_ptr<SessionEnd> end = ended ? ended->claimEnd() : nullptr;
    if (!end) {
        return 0;
    }
    // From here on the object may be deleted: nothing of it is touched any more.
    const std::uint64_t number = m_number;
    detachSessions(*ended);
    const PyThreadAllow allow;
    if (PyCallback::isInsideCall()) {
        ended->letEnd(std::move(end), runHere);
        SessionEnds::await(number);
    } else {
        ended->end();
        end = nullptr;
    }
    return 1;
}

BOOL Lumatie::Shoot()
{
    if (const std::shared_ptr<Tethering> open = tethering()) {
        open->shoot();
    }
    return 1;
}

BOOL Lumatie::SetValue(int nType, int value)
{
    if (const std::shared_ptr<Tethering> open = tethering()) {
        open->setValue(nType, value);
    }
    return 1;
}

int Lumatie::vendor() const
{
    const std::shared_ptr<Tethering> open = tethering();
    return open ? open->receiver().vendor() : static_cast<int>(VENDOR_NONE);
}

void Lumatie::endAllSessions()
{
    PyCallback::dropAllEvents();

    // Letting go runs code of the host, which may end sessions of others and start to wait.
    std::shared_ptr<SessionEnd> ends;
    while (std::shared_ptr<Tethering> tethering = SessionEnds::anyLive()) {
        if (std::shared_ptr<SessionEnd> end = tethering->claimEnd()) {
            detachSessions(*tethering);
            end->m_ended = std::move(tethering);
            end->m_next = std::exchange(ends, end);
        }
    }
    const PyThreadAllow allow;
    while (ends) {
        std::shared_ptr<SessionEnd> end = std::exchange(ends, ends->m_next);
        end->m_next = nullptr;
        const std::shared_ptr<Tethering> tethering = std::move(end->m_ended);
        tethering->letEnd(std::move(end), [](const Work& work) { runApart(work); });
    }
    // The interpreter may be ended by a callable, whose thread then does not come back. A copy of
    // such a thread has nothing to do for the other process's session.
    if (!PyCallback::wasSplitOff()) {
        canon::Processor::finishOnThisThread();
        nikon::NikonLeaveMonitor();
        nikon::Console::keepThread();
    }
    SessionEnds::awaitAllPatiently();
}
