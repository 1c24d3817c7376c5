// What every fuzz target needs: values taken from the fuzzer's input, and checks that end the run.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace fuzz {

// Ends the run, as a finding, when `holds` is false; `what` names what should hold.
inline void check(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "check failed: %s\n", what);
        std::abort();
    }
}

// The values of one input, one after the other. One that is used up gives zeros.
class Input
{
public:
    Input(const std::uint8_t* data, std::size_t size) : m_next(data), m_left(size) {}

    bool empty() const { return m_left == 0; }
    std::size_t left() const { return m_left; }

    template <typename Number>
    Number number()
    {
        Number value = 0;
        const std::size_t size = std::min(sizeof value, m_left);
        if (size > 0) {
            std::memcpy(&value, m_next, size);
            skip(size);
        }
        return value;
    }

    std::uint8_t byte() { return number<std::uint8_t>(); }
    bool flag() { return (byte() & 1U) != 0; }

    // A number below `limit`, which is at most 256.
    std::uint32_t below(std::uint32_t limit) { return byte() % limit; }

    // One of the listed numbers or, for one byte in four, any number.
    template <std::size_t count>
    std::uint32_t oneOf(const std::uint32_t (&numbers)[count])
    {
        const std::uint8_t choice = byte();
        return choice < 192 ? numbers[choice % count] : number<std::uint32_t>();
    }

    // At most `size` bytes; fewer when the input ends.
    std::vector<unsigned char> bytes(std::size_t size)
    {
        const std::size_t taken = std::min(size, m_left);
        std::vector<unsigned char> value(m_next, m_next + taken);
        skip(taken);
        return value;
    }

    std::string text(std::size_t size)
    {
        const std::vector<unsigned char> value = bytes(size);
        return {value.begin(), value.end()};
    }

    std::vector<unsigned char> rest() { return bytes(m_left); }

private:
    void skip(std::size_t size)
    {
        m_next += size;
        m_left -= size;
    }

    const std::uint8_t* m_next;
    std::size_t m_left;
};

}  // namespace fuzz

// What a target defines: handles one input; called by the fuzzer, or by Replay.cpp. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
