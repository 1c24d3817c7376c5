// The POSIX answers to Platform.h, all but the mutex and the settings file.
#include "platform/Platform.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace platform {

namespace {

void writeToStandardError(const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
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

bool removeFile(const char* path)
{
    return ::unlink(path) == 0 || errno == ENOENT;
}

std::FILE* createFile(const char* path)
{
    return std::fopen(path, "wb");
}

std::string libraryPath(const std::string& path)
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
    writeToStandardError(line);
}

void rejectText(const char* what)
{
    writeToStandardError(std::string("Lumatie: ") + what + "; the process ends.\n");
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
    return static_cast<unsigned long>(::getpid());
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
