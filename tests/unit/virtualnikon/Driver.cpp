#include "Driver.h"

#include <dlfcn.h>

Driver::Driver(const std::string& path) : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}

Driver::~Driver()
{
    unload();
}

void Driver::unload()
{
    if (m_handle != nullptr) {
        dlclose(m_handle);
        m_handle = nullptr;
    }
}

void* Driver::address(const char* name) const
{
    return m_handle == nullptr ? nullptr : dlsym(m_handle, name);
}

bool Driver::isThere(const std::string& path)
{
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

const Driver& driver()
{
    static const Driver kDriver(VIRTUAL_NIKON_LIBRARY);
    return kDriver;
}
