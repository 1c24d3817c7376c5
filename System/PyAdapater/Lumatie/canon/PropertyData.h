// Reading the data of a property without trusting its announced size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "EdSdk.h"

namespace canon {

// The data of one property as the library gave it.
class PropertyData
{
public:
    // Asks `object` for `size` bytes of `property`; returns the library's result. The buffer is
    // never smaller than any value that as() may be asked for, so that neither a size that was
    // announced too small nor a read of nine bytes leads past its end. A size that no property
    // has is answered with kInvalidParameter, without asking.
    EdsError read(EdsBaseRef object, EdsPropertyID property, std::uint32_t size);

    // The value at the start of the data; bytes that the library did not give are 0.
    template <typename Value>
    Value as() const
    {
        static_assert(std::is_trivially_copyable_v<Value> && sizeof(Value) <= kSmallestBuffer);
        Value value = {};
        std::memcpy(&value, m_bytes.data(), sizeof value);
        return value;
    }

    // The data as a text, up to its terminator or the end of what was asked for.
    std::string text() const;

private:
    static constexpr std::size_t kSmallestBuffer = 19224;      // the focus information
    static constexpr std::uint32_t kLargestSize = 0x01000000;  // 16 MiB

    std::vector<char> m_bytes = std::vector<char>(kSmallestBuffer);
    std::uint32_t m_size = 0;
};

}  // namespace canon
