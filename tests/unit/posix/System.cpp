#include "System.h"

#include <dlfcn.h>

#include <cstdlib>

const char* const kNullDevice = "/dev/null";
const bool kUnloadsWithThreads = true;

void setEnvironment(const char* name, const char* value)
{
    // NOLINTBEGIN(concurrency-mt-unsafe): nobody reads it meanwhile
    if (value != nullptr) {
        setenv(name, value, 1);
    } else {
        unsetenv(name);
    }
    // NOLINTEND(concurrency-mt-unsafe)
}

void showDebuggerOutput() {}

LoadedLibrary::LoadedLibrary(const std::string& path, Names names)
    : m_handle(
          dlopen(path.c_str(), RTLD_NOW | (names == Names::kForAll ? RTLD_GLOBAL : RTLD_LOCAL)))
{}

void LoadedLibrary::unload()
{
    if (m_handle != nullptr) {
        dlclose(m_handle);
        m_handle = nullptr;
    }
}

bool LoadedLibrary::isThere(const std::string& path)
{
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

LoadedLibrary::Address LoadedLibrary::address(const char* name) const
{
    return m_handle == nullptr ? nullptr : reinterpret_cast<Address>(dlsym(m_handle, name));
}
