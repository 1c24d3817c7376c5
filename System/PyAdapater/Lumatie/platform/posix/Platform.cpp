// The POSIX answers to Platform.h, all but the mutex and the settings file.
#include "platform/Platform.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

namespace platform {

namespace {

// Takes no memory: what is written may be that there is none.
void writeTo(int file, std::string_view text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(file, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            return;
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

}  // namespace

const char kPathSeparator = '/';

std::uint32_t fileAttributes(const char* path)
{
    struct stat status = {};
    if (path == nullptr || ::stat(path, &status) != 0) {
        return kNoAttributes;
    }
    if (S_ISDIR(status.st_mode)) {
        return kAttributeDirectory;
    }
    if (!S_ISREG(status.st_mode)) {
        return kAttributeNormal;
    }
    const bool readOnly = (status.st_mode & S_IWUSR) == 0;
    return kAttributeArchive | (readOnly ? kAttributeReadOnly : 0);
}

std::string completePath(const std::string& path)
{
    std::array<char, PATH_MAX> folder = {};
    if (path.empty() || path.front() == kPathSeparator ||
        ::getcwd(folder.data(), folder.size()) == nullptr) {
        return path;
    }
    std::string complete = std::string(folder.data()) + kPathSeparator + path;
    return complete.size() < folder.size() ? complete : path;
}

bool removeFile(const char* path)
{
    return ::unlink(path) == 0 || errno == ENOENT;
}

File createFile(const char* path, bool& isThere)
{
    const int file = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    isThere = file < 0 && errno == EEXIST;
    if (file < 0) {
        return nullptr;
    }
    File stream(::fdopen(file, "wb"));
    if (!stream) {
        ::close(file);
        ::unlink(path);
    }
    return stream;
}

std::optional<std::string> libraryPath(const std::string& path)
{
    return path;
}

bool environmentVariable(const char* name, char* buffer, std::size_t size)
{
    buffer[0] = '\0';
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody here sets any
    if (value == nullptr || std::strlen(value) >= size) {
        return false;
    }
    std::memcpy(buffer, value, std::strlen(value) + 1);
    return true;
}

void debuggerOutput(const char* line)
{
    writeTo(STDERR_FILENO, line);
}

void standardOutput(const std::string& text)
{
    // Not through the C library: what is stuck there holds up the process's end.
    std::fflush(stdout);
    writeTo(STDOUT_FILENO, text);
}

void rejectText(const char* what)
{
    writeTo(STDERR_FILENO, std::string("Lumatie: ") + what + "; the process ends.\n");
    // The exit status that the Windows C runtime's abort() gives. No destructor and no exit
    // function may run: other threads of ours are still at work.
    std::_Exit(3);
}

int randomNumber()
{
    // NOLINTNEXTLINE(cert-msc30-c,cert-msc50-cpp,concurrency-mt-unsafe): a name's, and thread-safe
    return std::rand();
}

unsigned long processNumber()
{
    // Kept, because every event asks, and the system takes a while to answer; 0 in a new process.
    static std::atomic<unsigned long> known{0};
    static const bool isKept = ::pthread_atfork(nullptr, nullptr, [] { known = 0; }) == 0;
    unsigned long number = known;
    if (number == 0) {
        number = static_cast<unsigned long>(::getpid());
        known = isKept ? number : 0;
    }
    return number;
}

void expectWholeUse(void* memory, std::size_t size)
{
    // Huge pages spare most of the time that touching so much for the first time takes.
    static const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    if (std::align(page, page, memory, size) != nullptr) {
        ::madvise(memory, size / page * page, MADV_HUGEPAGE);
    }
}

void sleepFor(unsigned milliseconds)
{
    timespec left = {};
    left.tv_sec = static_cast<time_t>(milliseconds / 1000);
    left.tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000;
    while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

ComApartment::ComApartment() = default;

ComApartment::~ComApartment() = default;

}  // namespace platform
