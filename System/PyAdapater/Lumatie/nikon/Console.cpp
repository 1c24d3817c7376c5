#include "nikon/Console.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "Memory.h"
#include "platform/Platform.h"

namespace nikon {

namespace {

using namespace std::chrono_literals;

// How long a text is waited for, and how long the end of the process waits for what is held.
constexpr auto kPatience = 200ms;
constexpr auto kPatienceAtExit = 1000ms;
constexpr unsigned kExitPauseMs = 10;

// How long the thread stays for the next text: they come in bursts.
constexpr auto kLinger = 50ms;

// What is given up without memory.
constexpr const char* kText = "a message";

// What is held for a reader that does not read; more is dropped.
constexpr std::size_t kMostHeld = std::size_t{64} << 10U;

// Texts on their way to standard output. A thread that lives while there are any, and a little
// longer, writes them, for when nobody reads there, the system holds up whoever writes.
// Thread-safe.
class Output
{
public:
    void write(const std::string& text);

    // Waits, not for long, until nothing is held. Takes no lock: at a process's end on Windows the
    // other threads are gone, with what they held.
    void finish() const;

    // From now on the thread waits for texts until the process ends.
    void keepThread();

    // A process that was split off has none of the threads, and perhaps a lock that is held.
    bool isOurs() const { return m_process == platform::processNumber(); }

private:
    void run();
    bool awaitText(std::unique_lock<std::mutex>& guard);

    const unsigned long m_process = platform::processNumber();
    std::mutex m_lock;  // guards the fields below
    std::condition_variable m_isDone;
    std::condition_variable m_hasText;
    std::string m_held;
    std::atomic<bool> m_isWriting{false};  // there is a text that was not written yet
    bool m_isThere = false;                // the thread
    bool m_isKept = false;                 // so that it does not end
    bool m_isStuck = false;                // it was waited for in vain
};

void Output::write(const std::string& text)
{
    std::unique_lock<std::mutex> guard(m_lock);
    if (m_held.size() + text.size() > kMostHeld) {
        return;
    }
    m_held += text;
    if (!m_isThere) {
        try {
            std::thread([this] { run(); }).detach();
            m_isThere = true;
        } catch (const std::system_error&) {
        } catch (const std::bad_alloc&) {
        }
        if (!m_isThere) {
            m_held.clear();
            return;
        }
    }
    m_isWriting = true;
    m_hasText.notify_one();
    if (!m_isStuck) {
        m_isStuck = !m_isDone.wait_for(guard, kPatience, [this] { return !m_isWriting; });
    }
}

void Output::run()
{
    std::unique_lock<std::mutex> guard(m_lock);
    do {
        while (!m_held.empty()) {
            const std::string text = std::move(m_held);
            m_held.clear();
            guard.unlock();
            doOrGiveUp(kText, [&] { platform::standardOutput(text); });
            guard.lock();
        }
        m_isStuck = false;
        m_isWriting = false;
        m_isDone.notify_all();
    } while (awaitText(guard));
    m_isThere = false;
}

// False when there was none for so long that the thread may end.
bool Output::awaitText(std::unique_lock<std::mutex>& guard)
{
    const auto hasText = [this] { return !m_held.empty(); };
    const bool goesOn = m_hasText.wait_for(guard, kLinger, [&] { return hasText() || m_isKept; });
    if (m_isKept) {
        m_hasText.wait(guard, hasText);
    }
    return goesOn;
}

void Output::keepThread()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isKept = true;
    m_hasText.notify_all();
}

void Output::finish() const
{
    const auto end = std::chrono::steady_clock::now() + kPatienceAtExit;
    while (m_isWriting && std::chrono::steady_clock::now() < end) {
        platform::sleepFor(kExitPauseMs);
    }
}

// Never destroyed: a thread may be stuck in it for ever.
std::atomic<Output*> g_output{nullptr};

void finishAtExit()
{
    const Output* output = g_output;
    if (output->isOurs()) {
        output->finish();
    }
}

Output& output()
{
    Output* found = g_output;
    while (found == nullptr || !found->isOurs()) {
        auto own = std::make_unique<Output>();
        const bool isFirst = found == nullptr;
        if (g_output.compare_exchange_strong(found, own.get())) {
            if (isFirst) {
                std::atexit(finishAtExit);
            }
            return *own.release();
        }
    }
    return *found;
}

}  // namespace

void Console::keepThread()
{
    Output* found = g_output;
    if (found != nullptr && found->isOurs()) {
        found->keepThread();
    }
}

void Console::puts(const char* text)
{
    doOrGiveUp(kText, [&] { output().write(std::string(text) + '\n'); });
}

void Console::print(const char* format, ...)
{
    va_list values;
    va_start(values, format);
    va_list again;
    va_copy(again, values);
    doOrGiveUp(kText, [&] {
        std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, values)),
                         '\0');
        std::vsnprintf(text.data(), text.size() + 1, format, again);
        output().write(text);
    });
    va_end(again);
    va_end(values);
}

}  // namespace nikon
