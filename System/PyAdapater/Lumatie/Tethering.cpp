#include "Tethering.h"

#include <functional>
#include <thread>
#include <utility>

#include "canon/CanonReporting.h"
#include "platform/Platform.h"

std::shared_ptr<Tethering> Tethering::make(std::uint64_t owner, canon::SdkFlag sdkInitialized)
{
    std::shared_ptr<Tethering> tethering(new Tethering(std::move(sdkInitialized)));
    tethering->m_end = std::make_shared<SessionEnd>(owner, tethering->m_receiver, tethering);
    SessionEnds::add(tethering->m_end);
    return tethering;
}

Tethering::Tethering(canon::SdkFlag sdkInitialized)
    : m_process(platform::processNumber()),
      m_receiver(std::make_shared<EventReceiver>()),
      m_canon(std::move(sdkInitialized))
{}

bool Tethering::isOthers() const
{
    return m_process != platform::processNumber();
}

int Tethering::start(const char* szInfo)
{
    if (!beginStart()) {
        return 0;
    }
    int result = 0;
    try {
        result = startMaker(szInfo);
    } catch (...) {
        finishStart();
        throw;
    }
    finishStart();
    return result;
}

bool Tethering::beginStart()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_ended) {
        return false;
    }
    ++m_starts;
    return true;
}

// An end that did not wait for this start follows here.
void Tethering::finishStart()
{
    std::unique_lock<std::mutex> guard(m_lock);
    --m_starts;
    m_started.notify_all();
    const std::shared_ptr<SessionEnd> end = m_starts == 0 ? std::move(m_endBehind) : nullptr;
    guard.unlock();
    if (end) {
        letSessionsEnd(end, [](const std::function<void()>& work) { work(); });
    }
}

int Tethering::startMaker(const char* szInfo)
{
    m_nVendor = platform::namesFile(szInfo) ? VENDOR_NIKON : VENDOR_CANON;
    m_receiver->serve(m_nVendor);
    if (m_nVendor == VENDOR_NIKON) {
        return nikon::NikonInit(m_nikon, m_receiver, szInfo);
    }
    return canon::CanonInit(m_canon, std::make_shared<canon::HostReporter>(m_receiver), szInfo);
}

void Tethering::shoot()
{
    if (m_receiver->vendor() == VENDOR_NIKON) {
        nikon::NikonShoot(m_nikon);
    } else if (m_receiver->vendor() == VENDOR_CANON) {
        canon::CanonShoot(m_canon);
    }
}

void Tethering::setValue(int nType, int value)
{
    if (m_receiver->vendor() == VENDOR_NIKON) {
        nikon::NikonSetValue(m_nikon, nType, value);
    } else if (m_receiver->vendor() == VENDOR_CANON) {
        canon::CanonSetValue(m_canon, nType, static_cast<std::uint32_t>(value));
    }
}

std::shared_ptr<SessionEnd> Tethering::claimEnd()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    std::shared_ptr<SessionEnd> end = std::move(m_end);
    if (end) {
        m_ended = true;
        end->m_runner = std::this_thread::get_id();
        end->m_begun = true;
    }
    return end;
}

// An end of Canon terminates the library even when the start has failed.
bool Tethering::endsCanon()
{
    return m_nVendor == VENDOR_CANON || canon::CanonHasSessions(m_canon);
}

void Tethering::end()
{
    nikon::NikonRequestEnd(m_nikon);
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_started.wait(guard, [this] { return m_starts == 0; });
    }
    if (endsCanon()) {
        canon::CanonClose(m_canon);
    }
    nikon::NikonUninit(m_nikon);
}

void Tethering::letEnd(std::shared_ptr<SessionEnd> end, const canon::Apart& apart)
{
    nikon::NikonRequestEnd(m_nikon);
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_starts > 0) {
            end->m_runner = std::thread::id();
            m_endBehind = std::move(end);
            return;
        }
    }
    letSessionsEnd(end, apart);
    end->m_runner = std::thread::id();
}

void Tethering::letSessionsEnd(const std::shared_ptr<SessionEnd>& end, const canon::Apart& apart)
{
    if (endsCanon()) {
        canon::CanonLetEnd(m_canon, end, apart);
    }
    nikon::NikonLetEnd(m_nikon, end);
}
