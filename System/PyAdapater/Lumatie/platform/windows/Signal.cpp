// The signal for Windows: an event of the kernel's, and a wait that lets COM through.
#include "platform/Platform.h"

#include "platform/windows/Windows.h"

#include <objbase.h>

namespace platform {

namespace {

bool isSingleThreadedApartment()
{
    APTTYPE type = APTTYPE_CURRENT;
    APTTYPEQUALIFIER qualifier = APTTYPEQUALIFIER_NONE;
    return SUCCEEDED(::CoGetApartmentType(&type, &qualifier)) &&
           (type == APTTYPE_STA || type == APTTYPE_MAINSTA);
}

}  // namespace

struct Signal::State {
    HANDLE handle = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
};

Signal::Signal() : m_state(std::make_unique<State>()) {}

Signal::~Signal()
{
    ::CloseHandle(m_state->handle);
}

void Signal::set()
{
    ::SetEvent(m_state->handle);
}

void Signal::wait()
{
    waitFor(INFINITE);
}

bool Signal::waitFor(unsigned milliseconds)
{
    if (isSingleThreadedApartment()) {
        // Calls of COM come through, and so do messages that are sent. The application's posted
        // messages wait: its windows are not to run inside one of our functions.
        DWORD index = 0;
        const HRESULT result =
            ::CoWaitForMultipleHandles(COWAIT_DEFAULT, milliseconds, 1, &m_state->handle, &index);
        if (result == S_OK || result == RPC_S_CALLPENDING) {
            return result == S_OK;
        }
    }
    return ::WaitForSingleObject(m_state->handle, milliseconds) == WAIT_OBJECT_0;
}

}  // namespace platform
