// The queue of commands and the worker that executes them, one at a time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>

#include "canon/Command.h"
#include "canon/Synchronized.h"
#include "canon/Thread.h"

namespace canon {

// Life: constructed (commands may be posted already), started, running, stopped, ended. A command
// posted after the worker has ended is destroyed unexecuted.
//
// The owner stops and joins the worker before it destroys the processor.
class Processor : public Thread
{
public:
    Processor() = default;
    Processor(const Processor&) = delete;
    Processor& operator=(const Processor&) = delete;
    ~Processor() override;

    // Starts the worker and returns when it has entered its loop, so that a stop that follows at
    // once is not overwritten. Returns false when no thread was to be had.
    bool startAndWait();

    // Puts a command at the end of the queue. Any thread; waits up to about 10 ms for a worker
    // that is idle.
    void enqueue(std::unique_ptr<Command> command);

    // Sets the command that the worker executes last, when its loop has ended. Before stop().
    void setCloseCommand(std::unique_ptr<Command> command);

    // Tells the worker to leave its loop: it finishes the command that it is in, destroys the
    // queued ones unexecuted and executes the close command. Any thread; does not wait.
    void stop();

    // Destroys every command of the queue, front to back.
    void clear();

    // Whether the worker is to go on. Any thread.
    bool isRunning() const { return m_running; }

    // What the worker does when its loop has ended: refuses further commands, destroys the queued
    // ones and executes the close command. Worker only, or in its place while it ends the process
    // from inside a command, from which it never comes back to its loop.
    void finish();

    // The worker's loop.
    void run() override;

private:
    std::unique_ptr<Command> takeCommand();
    void process(std::unique_ptr<Command> command);

    std::atomic<bool> m_running{false};
    Synchronized m_synchronized;  // guards the fields below, and the writing of m_running
    std::deque<std::unique_ptr<Command>> m_queue;
    std::unique_ptr<Command> m_closeCommand;
    bool m_refusing = false;  // the worker has ended: nobody is left to execute anything

    std::mutex m_enteredLock;  // guards m_entered
    std::condition_variable m_enteredSignal;
    bool m_entered = false;
};

}  // namespace canon
