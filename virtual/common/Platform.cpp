#include "common/Platform.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <cstdlib>
#endif

namespace steering {

#ifdef _WIN32

std::string environment(const char* name)
{
    std::string value(::GetEnvironmentVariableA(name, nullptr, 0), '\0');
    if (!value.empty()) {
        value.resize(
            ::GetEnvironmentVariableA(name, value.data(), static_cast<DWORD>(value.size())));
    }
    return value;
}

LoadedWhile::LoadedWhile()
{
    // Any address in the library names it.
    static const char kHere = 0;
    HMODULE library = nullptr;
    ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, &kHere, &library);
    m_library = library;
}

LoadedWhile::~LoadedWhile()
{
    ::FreeLibrary(static_cast<HMODULE>(m_library));
}

#else

std::string environment(const char* name)
{
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing sets it here
    return value == nullptr ? "" : value;
}

LoadedWhile::LoadedWhile() = default;
LoadedWhile::~LoadedWhile() = default;

#endif

}  // namespace steering
