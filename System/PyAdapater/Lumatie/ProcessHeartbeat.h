// Tells a process whose camera threads are slow from one whose camera threads hang.
#pragma once

// Thread-safe.
class ProcessHeartbeat
{
public:
    // A camera thread has come a step further: a command ended, a part of a picture came.
    static void note();

    // How many steps there were in this process; it is compared only.
    static unsigned count();
};
