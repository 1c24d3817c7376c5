#include "scene/Tiff.h"

namespace scene {

namespace {

enum Type : std::uint16_t {
    kAscii = 2,
    kShort = 3,
    kLong = 4,
    kRational = 5,
    kUndefined = 7,
    kSignedRational = 10
};

// Longer values lie behind the directory, each on an even offset.
std::size_t behind(const Bytes& data)
{
    return data.size() <= 4 ? 0 : data.size() + data.size() % 2;
}

}  // namespace

void append16(Bytes& bytes, std::uint16_t value)
{
    bytes.push_back(static_cast<std::uint8_t>(value & 0xFFU));
    bytes.push_back(static_cast<std::uint8_t>(value >> 8U));
}

void append32(Bytes& bytes, std::uint32_t value)
{
    append16(bytes, static_cast<std::uint16_t>(value & 0xFFFFU));
    append16(bytes, static_cast<std::uint16_t>(value >> 16U));
}

void TiffDirectory::text(std::uint16_t tag, const std::string& value)
{
    Bytes data(value.begin(), value.end());
    data.push_back(0);
    m_entries[tag] = {kAscii, static_cast<std::uint32_t>(data.size()), data};
}

void TiffDirectory::shorts(std::uint16_t tag, const std::vector<std::uint16_t>& values)
{
    Bytes data;
    for (const std::uint16_t value : values) {
        append16(data, value);
    }
    m_entries[tag] = {kShort, static_cast<std::uint32_t>(values.size()), data};
}

void TiffDirectory::number(std::uint16_t tag, std::uint32_t value)
{
    Bytes data;
    append32(data, value);
    m_entries[tag] = {kLong, 1, data};
}

void TiffDirectory::ratio(std::uint16_t tag, std::uint32_t numerator, std::uint32_t denominator)
{
    Bytes data;
    append32(data, numerator);
    append32(data, denominator);
    m_entries[tag] = {kRational, 1, data};
}

void TiffDirectory::signedRatio(std::uint16_t tag, std::int32_t numerator, std::int32_t denominator)
{
    ratio(tag, static_cast<std::uint32_t>(numerator), static_cast<std::uint32_t>(denominator));
    m_entries[tag].type = kSignedRational;
}

void TiffDirectory::opaque(std::uint16_t tag, const Bytes& value)
{
    m_entries[tag] = {kUndefined, static_cast<std::uint32_t>(value.size()), value};
}

std::size_t TiffDirectory::size() const
{
    std::size_t total = 2 + m_entries.size() * 12 + 4;
    for (const auto& entry : m_entries) {
        total += behind(entry.second.data);
    }
    return total;
}

void TiffDirectory::append(Bytes& bytes, std::uint32_t next) const
{
    std::size_t offset = bytes.size() + 2 + m_entries.size() * 12 + 4;
    Bytes values;
    append16(bytes, static_cast<std::uint16_t>(m_entries.size()));
    for (const auto& [tag, entry] : m_entries) {
        append16(bytes, tag);
        append16(bytes, entry.type);
        append32(bytes, entry.count);
        Bytes data = entry.data;
        if (data.size() <= 4) {
            data.resize(4);
            bytes.insert(bytes.end(), data.begin(), data.end());
            continue;
        }
        data.resize(behind(data));
        append32(bytes, static_cast<std::uint32_t>(offset));
        offset += data.size();
        values.insert(values.end(), data.begin(), data.end());
    }
    append32(bytes, next);
    bytes.insert(bytes.end(), values.begin(), values.end());
}

}  // namespace scene
