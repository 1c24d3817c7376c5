#include "EventReceiver.h"

bool EventReceiver::adopt(PyObject* callback)
{
    if (!m_detached) {
        SetCallback(callback);
    }
    if (m_detached) {
        SetCallback(nullptr);
        return false;
    }
    return true;
}

void EventReceiver::detach()
{
    m_detached = true;
    m_nVendor = VENDOR_NONE;
    SetCallback(nullptr);
}
