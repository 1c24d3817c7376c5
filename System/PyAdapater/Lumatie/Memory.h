// What becomes of work for which there is no memory.
#pragma once

#include <new>

#include "DebugLog.h"

// Does `work`, which `name` names in the debug log. Without memory it is given up where it is: a
// thread of ours must not end with it, and a maker's library must not see what was thrown. Returns
// whether it was done.
template <typename Work>
bool doOrGiveUp(const char* name, Work work)
{
    try {
        work();
        return true;
    } catch (const std::bad_alloc&) {
        DebugLog("there is not enough memory: %s is given up", name);
        return false;
    }
}
