#include "fakes/Records.h"

#include <algorithm>

namespace fake {

Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

Bytes packed(const std::vector<std::uint32_t>& numbers)
{
    Bytes array(numbers.size() * sizeof(std::uint32_t));
    if (!array.empty()) {
        std::memcpy(array.data(), numbers.data(), array.size());
    }
    return array;
}

std::vector<std::uint32_t> numbersIn(const Bytes& array)
{
    std::vector<std::uint32_t> numbers(array.size() / sizeof(std::uint32_t));
    if (!numbers.empty()) {
        std::memcpy(numbers.data(), array.data(), numbers.size() * sizeof(std::uint32_t));
    }
    return numbers;
}

MaidEnum textsRecord(const Bytes& array, std::uint32_t position)
{
    const auto size = static_cast<std::uint32_t>(array.size());
    return {kMaidElementPackedText, size, position, 0, 1, nullptr};
}

MaidEnum numbersRecord(const Bytes& array, std::uint32_t position)
{
    const auto count = static_cast<std::uint32_t>(array.size() / sizeof(std::uint32_t));
    return {kMaidElementUnsigned, count, position, 0, sizeof(std::uint32_t), nullptr};
}

MaidCapInfo capInfo(std::uint32_t id, std::uint32_t type, std::uint32_t operations,
                    const std::string& description)
{
    MaidCapInfo info = {};
    info.id = id;
    info.type = type;
    info.operations = operations;
    std::memcpy(info.description, description.data(),
                std::min(description.size(), sizeof info.description));
    return info;
}

MaidFileInfo fileInfo(std::size_t total, std::size_t length, std::uint32_t fileType)
{
    MaidFileInfo info = {};
    info.kind = kMaidDataFile | kMaidDataImage;
    info.fileType = fileType;
    info.totalLength = static_cast<std::uint32_t>(total);
    info.length = static_cast<std::uint32_t>(length);
    return info;
}

Part filePart(const std::string& data, std::size_t total, std::uint32_t fileType, bool removes)
{
    MaidFileInfo info = fileInfo(total, data.size(), fileType);
    info.removeObject = removes ? 1 : 0;
    return {bytesOf(info), bytesOf(data)};
}

Part wholeFile(const std::string& data, std::uint32_t fileType, bool removes)
{
    return filePart(data, data.size(), fileType, removes);
}

Part imagePart(const std::string& data, std::uint32_t rowBytes, std::uint32_t totalRows,
               bool removes)
{
    MaidImageInfo info = {};
    info.kind = kMaidDataImage;
    info.totalRows = totalRows;
    info.rows = rowBytes > 0 ? static_cast<std::uint32_t>(data.size()) / rowBytes : 0;
    info.rowBytes = rowBytes;
    info.removeObject = removes ? 1 : 0;
    return {bytesOf(info), bytesOf(data)};
}

void writeInfos(MaidData data, const std::vector<MaidCapInfo>& infos, std::uint32_t room)
{
    const std::size_t count = std::min<std::size_t>(room, infos.size());
    if (count > 0) {
        std::memcpy(reinterpret_cast<void*>(data), infos.data(), count * sizeof(MaidCapInfo));
    }
}

std::size_t roomAt(MaidData data)
{
    const auto record = recordAt<MaidEnum>(data);
    return std::size_t{record.elements} * static_cast<std::size_t>(record.elementSize);
}

void writeArray(MaidData data, const Bytes& array)
{
    const std::size_t size = std::min(roomAt(data), array.size());
    if (size > 0) {
        std::memcpy(recordAt<MaidEnum>(data).array, array.data(), size);
    }
}

void callEvent(const MaidCallback& callback, std::uint32_t event, MaidData parameter)
{
    reinterpret_cast<MaidEventProcedure>(callback.procedure)(callback.reference, event, parameter);
}

void callProgress(const MaidCallback& callback, std::uint32_t done, std::uint32_t total)
{
    reinterpret_cast<MaidProgressProcedure>(callback.procedure)(
        kMaidCommandCapStart, kMaidCapAcquire, callback.reference, done, total);
}

MaidResult callData(const MaidCallback& callback, const void* info, const void* data)
{
    return reinterpret_cast<MaidDataProcedure>(callback.procedure)(callback.reference, info, data);
}

}  // namespace fake
