// Directories of a TIFF file, which are the body of EXIF too. Little-endian.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace scene {

using Bytes = std::vector<std::uint8_t>;

void append16(Bytes& bytes, std::uint16_t value);
void append32(Bytes& bytes, std::uint32_t value);

class TiffDirectory
{
public:
    void text(std::uint16_t tag, const std::string& value);
    void shorts(std::uint16_t tag, const std::vector<std::uint16_t>& values);
    void number(std::uint16_t tag, std::uint32_t value);
    void ratio(std::uint16_t tag, std::uint32_t numerator, std::uint32_t denominator);
    void signedRatio(std::uint16_t tag, std::int32_t numerator, std::int32_t denominator);
    void opaque(std::uint16_t tag, const Bytes& value);

    // Bytes that the directory takes, its longer values included. Setting a tag again with a value
    // of the same kind does not change it, so that offsets can be filled in last.
    std::size_t size() const;

    // Writes the directory at the end of `bytes`, whose start is the start of the file. `next` is
    // the offset of the next directory, 0 for the last one.
    void append(Bytes& bytes, std::uint32_t next) const;

private:
    struct Entry {
        std::uint16_t type = 0;
        std::uint32_t count = 0;
        Bytes data;
    };

    std::map<std::uint16_t, Entry> m_entries;
};

}  // namespace scene
