#include "System.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>

const char* const kNullDevice = "NUL";
const bool kUnloadsWithThreads = false;

void setEnvironment(const char* name, const char* value)
{
    // The C runtime keeps a copy of its own; an empty value removes the variable there.
    _putenv_s(name, value != nullptr ? value : "");
    SetEnvironmentVariableA(name, value);
}

namespace {

// How OutputDebugStringA hands a text to a debugger; its characters and their number are the
// exception's arguments, the other way round.
constexpr DWORD kDebuggerText = 0x40010006;

LONG CALLBACK showText(EXCEPTION_POINTERS* event)
{
    const EXCEPTION_RECORD& record = *event->ExceptionRecord;
    if (record.ExceptionCode == kDebuggerText && record.NumberParameters >= 2) {
        std::fputs(reinterpret_cast<const char*>(record.ExceptionInformation[1]), stderr);
        std::fflush(stderr);
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

void showDebuggerOutput()
{
    AddVectoredExceptionHandler(1, showText);
}

LoadedLibrary::LoadedLibrary(const std::string& path, Names /*names*/)
    : m_handle(LoadLibraryA(path.c_str()))
{}

void LoadedLibrary::unload()
{
    if (m_handle != nullptr) {
        FreeLibrary(static_cast<HMODULE>(m_handle));
        m_handle = nullptr;
    }
}

bool LoadedLibrary::isThere(const std::string& path)
{
    return GetModuleHandleA(path.c_str()) != nullptr;
}

LoadedLibrary::Address LoadedLibrary::address(const char* name) const
{
    return m_handle == nullptr
               ? nullptr
               : reinterpret_cast<Address>(GetProcAddress(static_cast<HMODULE>(m_handle), name));
}
