#include "common/CallLog.h"

#include "common/Platform.h"
#include "common/Text.h"

namespace virtualcamera {

namespace {

// A program that misuses the library in a loop must not fill the memory.
constexpr std::size_t kMisusesKept = 10000;
constexpr std::size_t kThreadsNamed = 10000;

double seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

}  // namespace

CallLog::~CallLog()
{
    appendTo("");
}

std::string CallLog::threadName(std::thread::id thread)
{
    const auto known = m_threads.find(thread);
    if (known != m_threads.end()) {
        return known->second;
    }
    if (m_threads.size() >= kThreadsNamed) {
        m_threads.clear();
    }
    return m_threads[thread] = "T" + std::to_string(++m_named);
}

void CallLog::write(std::string_view what, Clock::time_point start)
{
    append(fixedPoint(seconds(start - m_loaded), 6) + " " + threadName(std::this_thread::get_id()) +
           " " + std::string(what) + " " + fixedPoint(seconds(Clock::now() - start) * 1000, 3) +
           " ms");
}

std::int64_t CallLog::microseconds() const
{
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - m_loaded).count();
}

int CallLog::calls(std::string_view function) const
{
    if (function == "*") {
        int total = 0;
        for (const auto& entry : m_counts) {
            total += entry.second;
        }
        return total;
    }
    const auto entry = m_counts.find(std::string(function));
    return entry == m_counts.end() ? 0 : entry->second;
}

void CallLog::misuse(const std::string& text)
{
    if (m_misuses.size() < kMisusesKept) {
        m_misuses.push_back(text);
    }
    write("MISUSE " + text, Clock::now());
}

std::string CallLog::misuseText() const
{
    std::string whole;
    for (const std::string& misuse : m_misuses) {
        whole += misuse + "\n";
    }
    return whole;
}

std::string CallLog::text() const
{
    std::string whole;
    for (const std::string& line : m_lines) {
        whole += line;
    }
    return whole;
}

bool CallLog::appendTo(const std::string& path)
{
    if (path == m_path) {
        return true;
    }
    if (m_file != nullptr) {
        std::fclose(m_file);
        m_file = nullptr;
    }
    std::string(path).swap(m_path);
    if (!path.empty()) {
        m_file = std::fopen(path.c_str(), "a");
    }
    return path.empty() || m_file != nullptr;
}

void CallLog::keep(std::size_t lines)
{
    m_kept = lines;
    while (m_lines.size() > m_kept) {
        m_lines.pop_front();
    }
}

void CallLog::clear()
{
    m_lines.clear();
    m_counts.clear();
    std::vector<std::string>().swap(m_misuses);
}

void CallLog::append(std::string line)
{
    line = std::to_string(++m_number) + " " + line + "\n";
    if (m_file != nullptr) {
        appendToFile(m_file, line);
    }
    if (m_kept == 0) {
        return;
    }
    if (m_lines.size() >= m_kept) {
        m_lines.pop_front();
    }
    m_lines.push_back(std::move(line));
}

}  // namespace virtualcamera
