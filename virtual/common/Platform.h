// What standard C++ does not tell about the system.
#pragma once

#include <cstdio>
#include <string>

namespace virtualcamera {

// An environment variable of the process; empty when it is not set. On Windows the C runtime of a
// library does not see what an application has changed: the system is asked.
std::string environment(const char* name);

// The number of this process.
unsigned long processNumber();

// Adds a text, in one piece, to the end of a file that was opened for appending, whatever another
// library of this process adds to the same file meanwhile.
void appendToFile(std::FILE* file, const std::string& text);

// What is at a path that the C library opens. On Windows it is in the ANSI code page, which the
// paths of the C++ library need not be.
bool isThere(const std::string& path);
bool isFolder(const std::string& path);

// Whether a library may wait for its threads while it is unloaded. On Windows it holds the loader's
// lock then, which an ending thread needs, and at the end of a process its threads are gone
// already.
#ifdef _WIN32
constexpr bool kJoinsWhileUnloading = false;
#else
constexpr bool kJoinsWhileUnloading = true;
#endif

// Keeps this library loaded while it lives, on systems where unloading cannot wait for the
// library's threads. Whoever owns such threads owns one, and joins them first.
class LoadedWhile
{
public:
    LoadedWhile();
    LoadedWhile(const LoadedWhile&) = delete;
    LoadedWhile& operator=(const LoadedWhile&) = delete;
    ~LoadedWhile();

private:
    [[maybe_unused]] void* m_library = nullptr;
};

}  // namespace virtualcamera
