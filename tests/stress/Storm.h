// What happens to a maker's virtual camera while the host's threads hammer a session with it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

// A random number source for one thread.
class Random
{
public:
    explicit Random(unsigned seed) : m_engine(seed + 1) {}

    // 0 to `count` - 1.
    unsigned below(unsigned count) { return static_cast<unsigned>(m_engine() % count); }

    // One of a list's elements, which must not be empty.
    template <typename List>
    auto oneOf(const List& list)
    {
        return *(std::begin(list) + below(static_cast<unsigned>(std::size(list))));
    }

private:
    std::minstd_rand m_engine;
};

// A picture that the camera made since the round began.
struct StormPicture {
    std::string bytes;
    std::int64_t fetched = 0;  // how often a session took it over whole
};

// One virtual camera. A round goes: begin, the acts on threads of their own, calmDown, the checks.
// The acts may run on any number of threads; the rest is for one.
class Storm
{
public:
    using Act = std::function<void(Random&)>;

    Storm() = default;
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;
    virtual ~Storm() = default;

    // How many cameras there are.
    virtual unsigned cameras() const = 0;

    // What Init is given by the tether object of that number, UTF-8.
    virtual std::string sessionInfo(unsigned owner) const = 0;

    // Of a thousand operations of the host so many start or end a session: operations do not take
    // the same time with each maker.
    virtual unsigned startsAndEnds() const = 0;

    // A thread of the host pauses for less than this between two operations: what is asked for
    // faster than the session can do it only waits.
    virtual unsigned pauseMs() const = 0;

    // Whether a file of this name, which was announced, need not be there: of a picture that
    // could not even be begun.
    virtual bool isOfNoPicture(const std::string& fileName) const = 0;

    // A session that ends lets a picture that is under way come whole, but tells nobody. So many
    // may be of that kind in a round.
    virtual long mostUntold(long sessions) const = 0;

    // Factory state, and settings that differ from round to round. In an orderly round the host
    // has one session at a time with each camera.
    virtual void begin(unsigned round, bool isOrderly) = 0;

    // What happens to the camera: each does one random thing of its kind.
    virtual std::vector<Act> acts() = 0;

    // Nothing misbehaves from now on; a session that is started works.
    virtual void calmDown() = 0;

    // Whether the session that was started after calmDown is ready for pictures.
    virtual bool isReady() = 0;

    // The button on the body. Returns false when an exposure runs.
    virtual bool press() = 0;

    // Whether the pictures that the session has to fetch have been fetched.
    virtual bool isFetched() = 0;

    virtual std::vector<StormPicture> pictures() = 0;

    // What the session did wrong in this round, after its end.
    virtual std::vector<std::string> complaints(bool isOrderly) = 0;
};

std::unique_ptr<Storm> makeCanonStorm();
std::unique_ptr<Storm> makeNikonStorm();
