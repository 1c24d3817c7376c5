// The one thing that standard C++ does not tell about the system.
#pragma once

namespace steering {

// Whether a library may wait for its threads while it is unloaded. On Windows it holds the loader's
// lock then, which an ending thread needs, and at the end of a process its threads are gone
// already.
#ifdef _WIN32
constexpr bool kJoinsWhileUnloading = false;
#else
constexpr bool kJoinsWhileUnloading = true;
#endif

}  // namespace steering
