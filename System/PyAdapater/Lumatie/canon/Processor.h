// The queue of commands and the worker that executes them, one at a time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <list>
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
    // More than a host has reason to post, and little memory.
    static constexpr std::size_t kLongQueue = 12'000;

    // A queue of `longQueue` commands takes a setting's new value in place of an older one that
    // still waits, if nothing but settings stands behind that.
    explicit Processor(std::size_t longQueue = kLongQueue) : m_longQueue(longQueue) {}
    Processor(const Processor&) = delete;
    Processor& operator=(const Processor&) = delete;
    ~Processor() override;

    // Starts the worker, which keeps `keep` alive until it has ended, and returns when it has
    // entered its loop, so that a stop that follows at once is not overwritten. Returns false when
    // no thread was to be had.
    bool startAndWait(std::shared_ptr<void> keep = nullptr);

    // Puts a command at the end of the queue. Any thread; waits up to about 10 ms for a worker
    // that is idle. Throws std::bad_alloc, with the command destroyed, when there is no memory.
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

    // Refuses further commands and destroys the queued ones: there is no worker to execute them.
    void discard();

    // Does what a worker that was told to stop has still to do, if the calling thread is one: it
    // ends the process from inside a command, and never comes back to its loop.
    static void finishOnThisThread();

    // The worker's loop.
    void run() override;

private:
    // What is taken out, put back or thrown away needs no memory.
    using Queue = std::list<std::unique_ptr<Command>>;

    void post(Queue one);
    void append(Queue& one);
    Queue takeOne();
    void process(Queue one);
    void finish();

    const std::size_t m_longQueue;
    std::atomic<bool> m_running{false};
    Synchronized m_synchronized;  // guards the two fields below, and the writing of m_running
    Queue m_queue;
    bool m_refusing = false;  // the worker has ended: nobody is left to execute anything

    // Set before the stop, looked at by the worker after it: the stop's passing through the mutex
    // orders the two.
    std::unique_ptr<Command> m_closeCommand;

    std::mutex m_enteredLock;  // guards m_entered
    std::condition_variable m_enteredSignal;
    bool m_entered = false;
};

}  // namespace canon
