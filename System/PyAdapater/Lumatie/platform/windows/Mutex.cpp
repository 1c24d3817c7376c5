// The fair recursive mutex for Windows: the kernel's, which a release hands to the longest waiter.
#include "platform/Platform.h"
#include "platform/windows/Windows.h"

namespace platform {

struct Mutex::State {
    HANDLE handle = ::CreateMutexA(nullptr, FALSE, nullptr);
};

Mutex::Mutex() : m_state(std::make_unique<State>()) {}

Mutex::~Mutex()
{
    ::CloseHandle(m_state->handle);
}

bool Mutex::lock()
{
    return lockFor(INFINITE);
}

bool Mutex::lockFor(unsigned milliseconds)
{
    const DWORD result = ::WaitForSingleObject(m_state->handle, milliseconds);
    // A thread that ended as the owner leaves the mutex to the next one all the same.
    return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
}

bool Mutex::unlock()
{
    return ::ReleaseMutex(m_state->handle) != FALSE;
}

}  // namespace platform
