// What each process has one of.
#pragma once

#include <atomic>
#include <memory>

#include "platform/Platform.h"

// The calling process's own `T`, made when it is first asked for and never destroyed. A process
// that was split off begins anew: a thread that it does not have may have been in the middle of its
// parent's. Thread-safe. Throws std::bad_alloc when the first one finds no memory.
template <typename T>
T& ofThisProcess()
{
    struct Owned {
        const unsigned long process = platform::processNumber();
        T value;
    };
    static std::atomic<Owned*> current{nullptr};
    Owned* known = current;
    while (known == nullptr || known->process != platform::processNumber()) {
        auto fresh = std::make_unique<Owned>();
        if (current.compare_exchange_strong(known, fresh.get())) {
            known = fresh.release();
        }
    }
    return known->value;
}
