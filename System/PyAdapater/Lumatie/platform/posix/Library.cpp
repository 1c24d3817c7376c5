// Libraries that are loaded at run time, for POSIX.
#include <dlfcn.h>
#include <sys/stat.h>

#include <string>

#include "platform/Platform.h"

namespace platform {

std::unique_ptr<Library> Library::load(const char* path, std::string& error)
{
    struct stat status = {};
    if (::stat(path, &status) != 0 || !S_ISREG(status.st_mode)) {
        // The loader would wait for ever for the other end of a pipe.
        error = std::string(path) + ": not a regular file";
        return nullptr;
    }
    // Without a slash the loader would look in its own folders.
    const std::string file = (std::string(path).find('/') == std::string::npos ? "./" : "");
    void* handle = ::dlopen((file + path).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = ::dlerror();  // NOLINT(concurrency-mt-unsafe): one for each thread
        error = reason != nullptr ? reason : "unknown";
        return nullptr;
    }
    return std::unique_ptr<Library>(new Library(handle));
}

Library::~Library()
{
    ::dlclose(m_handle);
}

void (*Library::function(const char* name) const)()
{
    return reinterpret_cast<void (*)()>(::dlsym(m_handle, name));
}

}  // namespace platform
