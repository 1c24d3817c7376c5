// What the module asks of the operating system: small functions, one answer per platform in
// windows/ and posix/, of which the build picks one folder. Nothing else names a system header.
//
// Texts are UTF-8. Every function is thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

static_assert(sizeof(void*) == 8, "The module is for 64-bit systems only.");

namespace platform {

// Bits and the failure value of fileAttributes, as GetFileAttributes gives them.
constexpr std::uint32_t kAttributeReadOnly = 0x1;
constexpr std::uint32_t kAttributeDirectory = 0x10;
constexpr std::uint32_t kAttributeArchive = 0x20;
constexpr std::uint32_t kAttributeNormal = 0x80;
constexpr std::uint32_t kNoAttributes = 0xFFFFFFFF;

// The separator between the export folder and a picture's name.
extern const char kPathSeparator;

// The attribute bits of `path`, or kNoAttributes when nothing is there. On POSIX a regular file
// is "archive", plus "read-only" when its owner may not write it; a folder is "directory";
// everything else that exists is "normal". A null path names nothing.
std::uint32_t fileAttributes(const char* path);

// Whether the attributes of `path` say that a file is there: that it is read-only, archived or
// normal.
inline bool namesFile(const char* path)
{
    const std::uint32_t attributes = fileAttributes(path);
    return attributes != kNoAttributes &&
           (attributes & (kAttributeReadOnly | kAttributeArchive | kAttributeNormal)) != 0;
}

// `path` seen from the current folder of this moment: it means the same file when the host changes
// its folder. `path` itself when it is complete already, or has no form that the system takes.
std::string completePath(const std::string& path);

// Deletes the file at `path`; returns whether it is gone.
bool removeFile(const char* path);

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Creates the file `path`, which must not be there yet, for writing bytes; a process that is
// started meanwhile does not hold it open. Null when that fails; `isThere` then says whether it is
// because the name is in use.
File createFile(const char* path, bool& isThere);

// The text by which a maker's library opens `path`: on Windows it takes the ANSI code page, so a
// folder with characters of others is given by its short name. Nothing when there is no way to say
// it. On POSIX always `path` itself.
std::optional<std::string> libraryPath(const std::string& path);

// Copies the environment variable `name` into `buffer` of `size` bytes, terminator included.
// Returns false, with an empty buffer, when it is not set or does not fit.
bool environmentVariable(const char* name, char* buffer, std::size_t size);

// The machine-wide number "DumpMsg": nothing when the machine has no settings of ours at all, 0
// when it has some but not this one. Windows: the registry key SOFTWARE\Zentrovik\Imagrelle of
// HKEY_LOCAL_MACHINE. POSIX: the line "DumpMsg=<number>" of Imagrelle.conf.
std::optional<std::uint32_t> dumpMessageSetting();

// Writes one finished line to the debugger; on POSIX to standard error, in one piece.
void debuggerOutput(const char* line);

// Writes to the process's standard output, behind what the C library still holds for it. Waits for
// ever when nobody reads there.
void standardOutput(const std::string& text);

// Says on standard error that `what` was rejected, and ends the process at once: a text that is
// missing or does not fit is never cut or skipped.
[[noreturn]] void rejectText(const char* what);

// The next number, 0 to RAND_MAX, of a generator that the whole process shares and that nobody
// seeds.
int randomNumber();

// The number of this process. A process that was split off (POSIX only) has another one, and none
// of the threads that it had.
unsigned long processNumber();

// Tells the system that all of these bytes, which nobody has touched yet, are about to be filled.
// Changes nothing but how long that takes.
void expectWholeUse(void* memory, std::size_t size);

// Blocks the calling thread for at least `milliseconds`.
void sleepFor(unsigned milliseconds);

// A recursive mutex that is fair: a waiter gets it before the releasing thread can take it again.
class Mutex
{
public:
    Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    ~Mutex();

    // Waits without limit; returns whether the calling thread owns the mutex now.
    bool lock();

    // Waits for at most `milliseconds`; returns whether the calling thread owns the mutex now.
    bool lockFor(unsigned milliseconds);

    // Gives up one level of ownership; returns false, and changes nothing, on a thread that does
    // not own the mutex.
    bool unlock();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// Something that happens once and is waited for, e.g. that a thread is about to end.
//
// A wait on a thread that is a single-threaded apartment of COM lets the calls of other apartments
// through meanwhile: whoever is to set the signal may be waiting for such a call. So the
// application's objects, and those of a maker's library, may be called inside a wait.
class Signal
{
public:
    Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal();

    // It has happened. A waiter that has seen it may destroy the signal.
    void set();

    // Waits without limit until it has happened.
    void wait();

    // Waits for at most `milliseconds`; returns whether it has happened.
    bool waitFor(unsigned milliseconds);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// A library that was loaded at run time; unloaded when this is destroyed.
class Library
{
public:
    // Loads the library in the file `path`; null, with the system's reason in `error`, when there
    // is none. One that is loaded already is loaded once more, and is the same.
    static std::unique_ptr<Library> load(const char* path, std::string& error);

    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library();

    // The exported function of that name; null when there is none.
    void (*function(const char* name) const)();

    // Equal for two objects exactly when they stand for the same library.
    const void* identity() const { return m_handle; }

private:
    explicit Library(void* handle) : m_handle(handle) {}

    void* m_handle;
};

// Makes the calling thread a member of COM's multithreaded apartment while it lives; nothing on
// POSIX. Destroyed on the thread that made it.
class ComApartment
{
public:
    ComApartment();
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
    ~ComApartment();

private:
    [[maybe_unused]] bool m_isMember = false;
};

}  // namespace platform
