// Memory that runs out where a test wants it to.
#pragma once

// While this lives, allocations of this program fail: those of the module under test and of the
// test, on every thread, but not those of the virtual camera. Only `operator new` is concerned, so
// the interpreter always finds memory.
class ScarceMemory
{
public:
    // The allocation with this number from now on fails, counted from 1, and no other one.
    static ScarceMemory failingOnce(int number) { return ScarceMemory(number, false); }

    // Every one fails.
    static ScarceMemory failingAlways() { return ScarceMemory(1, true); }

    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;
    ~ScarceMemory();

    // How many allocations have failed.
    static int failures();

private:
    ScarceMemory(int number, bool always);
};
