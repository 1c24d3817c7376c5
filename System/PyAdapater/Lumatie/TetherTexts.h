// The two process-wide texts that every tether object shares: where pictures go, and which one
// came last.
#pragma once

#include <mutex>
#include <string>

constexpr std::size_t kExportFolderSize = 256;  // bytes, terminator included
constexpr std::size_t kLastFileSize = 260;      // bytes, terminator included

// What g_szLastFile holds instead of a path after a picture could not be written.
extern const char* const kLastFileError;

// The folder that pictures are written into, without a trailing separator. Thread-safe.
class ExportFolder
{
public:
    // Sets the folder that the host named; a null text or one of 256 bytes or more ends the
    // process.
    void set(const char* szExportFolder);

    // Empty when the host named no folder: then no path may be formed, for it would lie in the root
    // folder. The end of a session leaves it, for the picture that is still under way.
    std::string text() const;

private:
    mutable std::mutex m_lock;  // guards the text
    std::string m_text;
};

// The full path of the last picture, or kLastFileError. Thread-safe.
//
// The text is one for the process, but a download and its report are two steps of one worker
// thread; what a thread has put here itself it therefore finds again, whatever the host or
// another session's worker has done to the shared text in between.
class LastFile
{
public:
    // Ends the process when `set` would.
    static void check(const std::string& text);

    // Stores the text, for the process and for the calling thread; one of 260 bytes or more ends
    // the process.
    void set(const std::string& text);

    // Empties the shared text.
    void clear();

    // How often the shared text was emptied by `clear`; it is compared only.
    unsigned clears() const;

    // Returns the calling thread's own text or, when it has none, the shared one, and empties
    // both: each picture is reported once.
    std::string take();

private:
    mutable std::mutex m_lock;  // guards both fields
    std::string m_shared;
    unsigned m_clears = 0;
};

extern ExportFolder& g_szExportFolder;
extern LastFile& g_szLastFile;
