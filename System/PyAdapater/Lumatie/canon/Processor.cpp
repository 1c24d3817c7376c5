#include "canon/Processor.h"

#include <utility>

#include "SignsOfLife.h"
#include "platform/Platform.h"

namespace canon {

namespace {

constexpr unsigned kTurnPauseMs = 1;
constexpr unsigned kIdleWaitMs = 10;
constexpr unsigned kRetryPauseMs = 500;

}  // namespace

Processor::~Processor()
{
    clear();
}

bool Processor::startAndWait()
{
    if (!start()) {
        return false;
    }
    std::unique_lock<std::mutex> guard(m_enteredLock);
    m_enteredSignal.wait(guard, [this] { return m_entered; });
    return true;
}

void Processor::enqueue(std::unique_ptr<Command> command)
{
    m_synchronized.lock();
    if (!m_refusing) {
        m_queue.push_back(std::move(command));
    }
    m_synchronized.notify();
    m_synchronized.unlock();
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
    std::deque<std::unique_ptr<Command>> commands;
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
    const platform::ComApartment apartment;
    m_running = true;
    {
        const std::lock_guard<std::mutex> guard(m_enteredLock);
        m_entered = true;
        m_enteredSignal.notify_all();
    }

    while (m_running) {
        platform::sleepFor(kTurnPauseMs);
        std::unique_ptr<Command> command = takeCommand();
        if (command) {
            process(std::move(command));
        }
    }
    finish();
}

std::unique_ptr<Command> Processor::takeCommand()
{
    std::unique_ptr<Command> command;
    m_synchronized.lock();
    while (m_queue.empty() && m_running) {
        m_synchronized.wait(kIdleWaitMs);
    }
    if (m_running) {
        command = std::move(m_queue.front());
        m_queue.pop_front();
    }
    m_synchronized.unlock();
    return command;
}

void Processor::process(std::unique_ptr<Command> command)
{
    const bool finished = command->execute();
    giveSignOfLife();
    if (!finished) {
        // The pause keeps a busy camera from being hammered.
        platform::sleepFor(kRetryPauseMs);
        enqueue(std::move(command));
    }
}

void Processor::finish()
{
    m_synchronized.lock();
    m_refusing = true;
    const std::unique_ptr<Command> closeCommand = std::move(m_closeCommand);
    m_synchronized.unlock();

    clear();
    if (closeCommand) {
        closeCommand->execute();
    }
}

}  // namespace canon
