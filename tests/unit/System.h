// What the tests need of the operating system, beside what the module asks of it.
#pragma once

#include <string>

// A device that takes everything; a path of it exists.
extern const char* const kNullDevice;

// Whether a library is unloaded while threads of its own run. Where it is not, it stays.
extern const bool kUnloadsWithThreads;

// Sets an environment variable of this process; null removes it.
void setEnvironment(const char* name, const char* value);

// From now on what this process sends to the debugger appears on its standard error.
void showDebuggerOutput();

// A library that a test loads by its path, looks functions up in, and unloads.
class LoadedLibrary
{
public:
    // Who may take its names for his own: nobody who does not look them up in it, or every library
    // that is loaded later. Windows knows the first only.
    enum class Names { kOwn, kForAll };

    explicit LoadedLibrary(const std::string& path, Names names = Names::kOwn);
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;
    ~LoadedLibrary() { unload(); }

    bool isLoaded() const { return m_handle != nullptr; }
    void unload();

    // `Function` is a pointer to one; null when the library has none of this name.
    template <typename Function>
    Function find(const char* name) const
    {
        return reinterpret_cast<Function>(address(name));
    }

    // Whether anybody in this process has the library of this path loaded.
    static bool isThere(const std::string& path);

private:
    using Address = void (*)();
    Address address(const char* name) const;

    void* m_handle;
};
