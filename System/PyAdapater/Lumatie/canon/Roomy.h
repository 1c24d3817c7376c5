// Records that a library fills, with room behind what is known of them.
#pragma once

#include <array>
#include <cstddef>
#include <type_traits>

namespace canon {

// A record of the library's interface. Newer libraries append fields to their records: what they
// write behind the ones that are known lands in room of its own.
template <typename Record>
class Roomy
{
    static_assert(std::is_trivially_copyable_v<Record> && std::is_standard_layout_v<Record>);

public:
    // What a function of the library gets to fill.
    Record* toFill() { return &m_place.record; }

    Record& operator*() { return m_place.record; }
    Record* operator->() { return &m_place.record; }

private:
    struct Place {
        Record record;
        std::array<unsigned char, 256> room;
    };

    Place m_place = {};
};

}  // namespace canon
