// The records of the driver interface as a module makes and fills them, and its calls of the
// application's procedures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Maid.h"

namespace fake {

using Bytes = std::vector<unsigned char>;

constexpr std::uint32_t kSettable = kMaidOperationGet | kMaidOperationSet;
constexpr MaidResult kRefused = -127;

template <typename Record>
Bytes bytesOf(const Record& record)
{
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

Bytes bytesOf(const std::string& text);

// Numbers, one after the other.
Bytes packed(const std::vector<std::uint32_t>& numbers);
std::vector<std::uint32_t> numbersIn(const Bytes& array);

// The record of an array of texts or numbers.
MaidEnum textsRecord(const Bytes& array, std::uint32_t position);
MaidEnum numbersRecord(const Bytes& array, std::uint32_t position);

// A descriptor. Of the description at most 256 bytes count; it need not have a terminator.
MaidCapInfo capInfo(std::uint32_t id, std::uint32_t type, std::uint32_t operations,
                    const std::string& description = "");

// The description of a part of a file, sizes in bytes.
MaidFileInfo fileInfo(std::size_t total, std::size_t length,
                      std::uint32_t fileType = kMaidFileJpeg);

// One call of a data procedure.
struct Part {
    Bytes info;
    Bytes data;
    bool withoutData = false;  // a null pointer is delivered
};

// A part of a file of `total` bytes.
Part filePart(const std::string& data, std::size_t total, std::uint32_t fileType = kMaidFileJpeg,
              bool removes = false);

// A whole file.
Part wholeFile(const std::string& data, std::uint32_t fileType = kMaidFileJpeg,
               bool removes = false);

// Some rows of an image of `totalRows`.
Part imagePart(const std::string& data, std::uint32_t rowBytes, std::uint32_t totalRows,
               bool removes = false);

// A record of the caller's is read or written at the address that a command's data are.
template <typename Record>
Record recordAt(MaidData data)
{
    Record record = {};
    std::memcpy(&record, reinterpret_cast<const void*>(data), sizeof record);
    return record;
}

template <typename Record>
void write(MaidData data, const Record& record)
{
    std::memcpy(reinterpret_cast<void*>(data), &record, sizeof record);
}

// Writes the descriptors, no more than there is room for.
void writeInfos(MaidData data, const std::vector<MaidCapInfo>& infos, std::uint32_t room);

// The bytes that the caller has for the array of its MaidEnum.
std::size_t roomAt(MaidData data);

// Fills the array of the caller's MaidEnum, as far as there is room.
void writeArray(MaidData data, const Bytes& array);

// Calls of a procedure, which must be there.
void callEvent(const MaidCallback& callback, std::uint32_t event, MaidData parameter);
void callProgress(const MaidCallback& callback, std::uint32_t done, std::uint32_t total);
MaidResult callData(const MaidCallback& callback, const void* info, const void* data);

}  // namespace fake
