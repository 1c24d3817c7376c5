// The progress of a driver module's commands, drawn on standard output.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

namespace nikon {

// Thread-safe.
class ProgressBar
{
public:
    // Draws that `done` of `total` parts are done. Without a total, 1 draws a "c", at most one in
    // half a second, and 0 an "o".
    void show(std::uint32_t done, std::uint32_t total);

private:
    using Clock = std::chrono::steady_clock;

    void showWithoutTotal(std::uint32_t done);
    void start();

    std::mutex m_lock;           // guards the fields below
    bool m_startsNewBar = true;  // set until a bar is begun, and again when it is full
    std::uint32_t m_steps = 0;   // drawn so far
    std::optional<Clock::time_point> m_lastSign;
};

}  // namespace nikon
