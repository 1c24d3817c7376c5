#include "nikon/ProgressBar.h"

#include <algorithm>

#include "nikon/Console.h"

namespace nikon {

namespace {

using namespace std::chrono_literals;

constexpr auto kSignInterval = 500ms;
constexpr std::uint64_t kSteps = 50;

// The completed fiftieths, rounded up.
std::uint32_t stepsOf(std::uint64_t done, std::uint64_t total)
{
    return static_cast<std::uint32_t>(std::min((done * kSteps - 1 + total) / total, kSteps));
}

}  // namespace

void ProgressBar::show(std::uint32_t done, std::uint32_t total)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (total == 0) {
        showWithoutTotal(done);
        return;
    }
    if (done == 0) {
        start();
        return;
    }
    const std::uint32_t steps = stepsOf(done, total);
    for (; m_steps < steps; ++m_steps) {
        Console::print("]");
    }
    m_steps = steps;
    if (done == total) {
        Console::print("\n");
        m_startsNewBar = true;
    }
}

void ProgressBar::showWithoutTotal(std::uint32_t done)
{
    if (done == 0) {
        Console::print("o");
    }
    const auto now = Clock::now();
    if (done == 1 && (!m_lastSign || now - *m_lastSign >= kSignInterval)) {
        Console::print("c");
        m_lastSign = now;
    }
}

void ProgressBar::start()
{
    if (!m_startsNewBar) {
        return;
    }
    m_steps = 0;
    m_startsNewBar = false;
    Console::print("\n0       20        40        60        80        100");
    Console::print("\n---------+---------+---------+---------+---------+\n");
}

}  // namespace nikon
