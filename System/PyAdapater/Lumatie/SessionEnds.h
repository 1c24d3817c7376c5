// The one place that knows who in this process has sessions, and which of them are being ended.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <utility>

class PyCallback;
class Tethering;

// The end of one tethering: kept by it until somebody takes the end upon himself, then by everybody
// who still has a part of it to do. When the last one lets go of it, the end is over.
struct SessionEnd {
    SessionEnd(std::uint64_t owner, std::shared_ptr<const PyCallback> receiver,
               std::weak_ptr<Tethering> tethering)
        : m_owner(owner), m_receiver(std::move(receiver)), m_tethering(std::move(tethering))
    {}

    const std::uint64_t m_owner;  // the tether object's number
    const std::shared_ptr<const PyCallback> m_receiver;
    const std::weak_ptr<Tethering> m_tethering;
    std::atomic<bool> m_begun{false};
    // The thread that is in the middle of it, further up its stack; none once it was handed over.
    std::atomic<std::thread::id> m_runner{std::thread::id()};
    std::atomic<bool> m_leftBehind{false};  // nobody waits for it any more
    // For whoever ends several: the next one, and what this one is the end of.
    std::shared_ptr<SessionEnd> m_next;
    std::shared_ptr<Tethering> m_ended;
};

// All of them. Thread-safe. What ends something takes no memory: there may be none. Nothing of it
// is ever destroyed: a thread that was left behind may come back at any time. A process that was
// split off has none of its parent's.
class SessionEnds
{
public:
    // A number for a tether object; it is not given twice.
    static std::uint64_t newOwner();

    static void add(const std::shared_ptr<SessionEnd>& end);

    // A tethering that nobody has begun to end; null when there is none.
    static std::shared_ptr<Tethering> anyLive();

    // Waits until no end of `owner` is under way, but for those that cannot come to their end while
    // the calling thread waits: what it is itself in the middle of, and, where it is inside the
    // host's callable, those whose callable is running. Interpreter lock not held.
    static void await(std::uint64_t owner);

    // Waits until no end at all is under way on other threads. When there was no sign of life for
    // ten seconds it leaves those that are behind, and nobody waits for them any more. Interpreter
    // lock not held.
    static void awaitAllPatiently();
};
