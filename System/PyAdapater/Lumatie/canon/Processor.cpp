#include "canon/Processor.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Memory.h"
#include "ProcessHeartbeat.h"
#include "platform/Platform.h"

namespace canon {

namespace {

constexpr unsigned kTurnPauseMs = 1;
constexpr unsigned kIdleWaitMs = 10;
constexpr unsigned kRetryPauseMs = 500;
constexpr unsigned kStopPatienceMs = 1000;

// Whose worker the calling thread is.
thread_local Processor* t_own = nullptr;

}  // namespace

Processor::~Processor()
{
    clear();
}

bool Processor::startAndWait(std::shared_ptr<void> keep)
{
    if (!start(std::move(keep))) {
        return false;
    }
    std::unique_lock<std::mutex> guard(m_enteredLock);
    m_enteredSignal.wait(guard, [this] { return m_entered; });
    return true;
}

void Processor::enqueue(std::unique_ptr<Command> command)
{
    Queue one;
    one.push_back(std::move(command));
    post(std::move(one));
}

void Processor::post(Queue one)
{
    m_synchronized.lock();
    append(one);
    m_synchronized.notify();
    m_synchronized.unlock();
}

// A command that was not taken, or whose place was taken, is left in `one`.
void Processor::append(Queue& one)
{
    if (m_refusing) {
        return;
    }
    const std::optional<EdsPropertyID> setting = one.front()->settingOf();
    if (setting && m_queue.size() >= m_longQueue) {
        for (auto older = m_queue.rbegin(); older != m_queue.rend(); ++older) {
            const std::optional<EdsPropertyID> replaced = (*older)->settingOf();
            if (!replaced) {
                break;
            }
            if (replaced == setting) {
                older->swap(one.front());
                return;
            }
        }
    }
    m_queue.splice(m_queue.end(), one);
}

void Processor::setCloseCommand(std::unique_ptr<Command> command)
{
    // Without the mutex: the worker looks at it only after stop() has passed through there, and an
    // idle worker would keep the caller waiting twice.
    m_closeCommand = std::move(command);
}

void Processor::stop()
{
    m_synchronized.lock();
    m_running = false;
    m_synchronized.unlock();
}

void Processor::clear()
{
    Queue commands;
    m_synchronized.lock();
    commands.swap(m_queue);
    m_synchronized.unlock();

    // Destroyed with the queue open: a command that gives an object back to the library must not
    // keep the library's own thread out meanwhile.
    while (!commands.empty()) {
        commands.pop_front();
    }
}

void Processor::run()
{
    t_own = this;
    m_running = true;
    {
        const std::lock_guard<std::mutex> guard(m_enteredLock);
        m_entered = true;
        m_enteredSignal.notify_all();
    }

    while (m_running) {
        platform::sleepFor(kTurnPauseMs);
        Queue one = takeOne();
        if (!one.empty()) {
            process(std::move(one));
        }
    }
    finish();
    t_own = nullptr;
}

// Returns none when the worker was stopped.
Processor::Queue Processor::takeOne()
{
    Queue one;
    m_synchronized.lock();
    while (m_queue.empty() && m_running) {
        m_synchronized.wait(kIdleWaitMs);
    }
    if (m_running) {
        one.splice(one.end(), m_queue, m_queue.begin());
    }
    m_synchronized.unlock();
    return one;
}

// A command that finds no memory is given up: the host may have some again for the next one.
void Processor::process(Queue one)
{
    bool finished = true;
    doOrGiveUp("a command", [&] { finished = one.front()->execute(); });
    ProcessHeartbeat::note();
    if (!finished) {
        // The pause keeps a busy camera from being hammered.
        platform::sleepFor(kRetryPauseMs);
        post(std::move(one));
    }
}

void Processor::discard()
{
    m_synchronized.lock();
    m_refusing = true;
    m_synchronized.unlock();
    clear();
}

// What follows the loop.
void Processor::finish()
{
    discard();
    if (const std::unique_ptr<Command> closeCommand = std::move(m_closeCommand)) {
        doOrGiveUp("the close command", [&] { closeCommand->execute(); });
    }
}

void Processor::finishOnThisThread()
{
    Processor* own = std::exchange(t_own, nullptr);
    if (own == nullptr) {
        return;
    }
    // Whoever ends the session may be on its way to say so.
    for (unsigned waited = 0; own->m_running && waited < kStopPatienceMs; ++waited) {
        platform::sleepFor(1);
    }
    if (!own->m_running) {
        own->finish();
        own->leaveForGood();
    }
}

}  // namespace canon
