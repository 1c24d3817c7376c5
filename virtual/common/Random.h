// A small random generator of our own: rand() belongs to the application.
#pragma once

#include <cstdint>

namespace virtualcamera {

// Marsaglia's xorshift with 64 bits: quick, repeatable, not for secrets.
class Random
{
public:
    explicit Random(std::uint64_t seed) : m_state(seed * 0x9E3779B97F4A7C15U + 0x1234567U)
    {
        if (m_state == 0) {
            m_state = 1;
        }
    }

    std::uint64_t next()
    {
        m_state ^= m_state << 13U;
        m_state ^= m_state >> 7U;
        m_state ^= m_state << 17U;
        return m_state;
    }

private:
    std::uint64_t m_state;
};

}  // namespace virtualcamera
