// What the sessions of one tether object tell the host through.
#pragma once

#include <atomic>
#include <cstdint>

#include "PyCallback.h"
#include "TetherEvents.h"

// The host's callable, and the maker whose events it gets. Shared by a tether object and all its
// sessions from an Init to the Uninit that ends them; the last one to let go of it deletes it. Once
// it is detached nothing reaches the host through it any more, whoever still holds it.
class EventReceiver : public PyCallback
{
public:
    // The maker that the host is served by, one of the VENDOR_* codes. Any thread.
    int vendor() const { return m_nVendor; }
    void serve(int vendor) { m_nVendor = vendor; }

    // Stores the host's callable, unless this was detached. Dropping the one before runs code of
    // the host, which may detach this: then false, and nothing is stored. Interpreter lock held.
    bool adopt(PyObject* callback);

    // Drops the callable, for good; runs code of the host. Interpreter lock held.
    void detach();

private:
    std::atomic<std::int32_t> m_nVendor{VENDOR_NONE};
    std::atomic<bool> m_detached{false};
};
