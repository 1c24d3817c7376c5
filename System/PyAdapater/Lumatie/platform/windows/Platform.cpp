// The Windows answers to Platform.h that are about the process: its environment, its debugger, its
// end, time and COM.
#include "platform/Platform.h"

#include "platform/windows/Windows.h"

#include <objbase.h>

#include <cstdlib>
#include <mutex>

namespace platform {

bool environmentVariable(const char* name, char* buffer, std::size_t size)
{
    buffer[0] = '\0';
    ::SetLastError(ERROR_SUCCESS);  // an empty value leaves it alone
    const DWORD length = ::GetEnvironmentVariableA(name, buffer, static_cast<DWORD>(size));
    const bool isThere = length > 0 || ::GetLastError() == ERROR_SUCCESS;
    // A value that does not fit is told by its size.
    if (!isThere || length >= size) {
        buffer[0] = '\0';
        return false;
    }
    return true;
}

void debuggerOutput(const char* line)
{
    ::OutputDebugStringA(line);
}

void standardOutput(const std::string& text)
{
    std::string lines;
    for (const char letter : text) {
        lines += letter == '\n' ? "\r\n" : std::string(1, letter);
    }
    // Not through the C library: what is stuck there holds up the process's end.
    std::fflush(stdout);
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD written = 0;
    for (std::size_t done = 0; done < lines.size(); done += written) {
        const auto left = static_cast<DWORD>(lines.size() - done);
        if (::WriteFile(output, lines.data() + done, left, &written, nullptr) == FALSE ||
            written == 0) {
            return;
        }
    }
}

void rejectText(const char* what)
{
    const std::string message = std::string("Lumatie: ") + what + "; the process ends.\r\n";
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), message.data(),
                static_cast<DWORD>(message.size()), &written, nullptr);
    // The exit status that the C runtime's abort() gives. No library may be told: other threads
    // of ours are still at work, and would be stopped wherever they are.
    ::TerminateProcess(::GetCurrentProcess(), 3);
    std::_Exit(3);
}

int randomNumber()
{
    // The sequence of this system's C runtime, whose rand() begins anew on each thread: two
    // sessions would give their pictures the same names.
    static std::mutex lock;
    static std::uint32_t state = 1;
    const std::lock_guard<std::mutex> guard(lock);
    state = state * 214013U + 2531011U;
    return static_cast<int>((state >> 16U) & 0x7FFFU);
}

unsigned long processNumber()
{
    return ::GetCurrentProcessId();
}

void expectWholeUse(void* /*memory*/, std::size_t /*size*/) {}

void sleepFor(unsigned milliseconds)
{
    ::Sleep(milliseconds);
}

ComApartment::ComApartment()
    : m_isMember(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
{}

ComApartment::~ComApartment()
{
    if (m_isMember) {
        ::CoUninitialize();
    }
}

}  // namespace platform
