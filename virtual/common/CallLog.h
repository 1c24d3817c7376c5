// What the application did: the call log, the number of calls of each function, the misuses.
//
// Not thread-safe: the owner guards it.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace virtualcamera {

using Clock = std::chrono::steady_clock;

class CallLog
{
public:
    CallLog() = default;
    ~CallLog();
    CallLog(const CallLog&) = delete;
    CallLog& operator=(const CallLog&) = delete;

    // "T1" for the first thread that ever called, "T2" for the next; "E" for the library's own.
    std::string threadName(std::thread::id thread);

    // Threads that are the library's own from now on.
    void markOwn(std::thread::id thread) { m_threads[thread] = "E"; }

    // The thread ends; another one may get its id.
    void forget(std::thread::id thread) { m_threads.erase(thread); }
    void forgetThreads() { m_threads.clear(); }

    // Writes a line about something that began at `start` and has ended now.
    void write(std::string_view what, Clock::time_point start);

    // Since the library was loaded, as the lines say it.
    std::int64_t microseconds() const;

    // Counts an answered call.
    void count(std::string_view function) { ++m_counts[std::string(function)]; }

    // Answered calls of a function, of all with "*".
    int calls(std::string_view function) const;

    // Notes a misuse, and writes it to the log too.
    void misuse(const std::string& text);

    int misuses() const { return static_cast<int>(m_misuses.size()); }

    // A line each.
    std::string misuseText() const;
    void clearMisuses() { m_misuses.clear(); }

    // The lines that are kept, each with its end of line.
    std::string text() const;
    void clearLines() { m_lines.clear(); }

    // Lines are appended to this file too; an empty path ends that. False if it cannot be opened.
    bool appendTo(const std::string& path);

    // How many lines are kept.
    void keep(std::size_t lines);

    // Forgets lines, counts and misuses; the file stays.
    void clear();

private:
    void append(std::string line);

    Clock::time_point m_loaded = Clock::now();
    std::uint64_t m_number = 0;
    std::size_t m_kept = 10000;
    std::list<std::string> m_lines;
    std::map<std::string, int> m_counts;
    std::vector<std::string> m_misuses;
    std::map<std::thread::id, std::string> m_threads;
    std::size_t m_named = 0;
    std::string m_path;
    std::FILE* m_file = nullptr;  // std::ofstream does not tell the reason of a failure
};

}  // namespace virtualcamera
