#include "nikon/DataReceiver.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Memory.h"
#include "PictureName.h"
#include "TetherTexts.h"
#include "nikon/Console.h"
#include "platform/Platform.h"

namespace nikon {

namespace {

constexpr const char* kVendorWord = "Nikon";

// A slow disk gives a sign of life after each of these.
constexpr std::size_t kWriteSize = std::size_t{1} << 20U;

// More than any picture has; files are limited to 4 GiB anyway, images in rows are not.
constexpr std::uint64_t kMostBytes = std::uint64_t{16} << 30U;

const char* extensionOf(std::uint32_t fileType)
{
    switch (fileType) {
        case kMaidFileJpeg:
            return ".jpg";
        case kMaidFileTiff:
            return ".tif";
        case kMaidFileNef:
            return ".nef";
        case kMaidFileNdf:
            return ".ndf";
        default:
            return ".dat";
    }
}

// A record of the module's; it may lie anywhere.
template <typename Record>
Record copyOf(const void* source)
{
    Record record = {};
    std::memcpy(&record, source, sizeof record);
    return record;
}

}  // namespace

// A part in bytes, whatever form the module describes it in. 64 bits, so that nothing overflows.
struct DataReceiver::Part {
    bool isFile = false;
    bool mayRemoveItem = false;
    std::uint64_t total = 0;
    std::uint64_t length = 0;
    const char* extension = "";

    static Part of(const void* info);
};

DataReceiver::Part DataReceiver::Part::of(const void* info)
{
    Part part;
    const std::uint32_t kind = copyOf<MaidDataInfo>(info).kind;
    part.isFile = (kind & kMaidDataFile) != 0;
    bool removes = false;
    if (part.isFile) {
        const auto file = copyOf<MaidFileInfo>(info);
        part.total = file.totalLength;
        part.length = file.length;
        part.extension = extensionOf(file.fileType);
        removes = file.removeObject != 0;
    } else {
        const auto image = copyOf<MaidImageInfo>(info);
        part.total = std::uint64_t{image.totalRows} * image.rowBytes;
        part.length = std::uint64_t{image.rows} * image.rowBytes;
        part.extension = ".raw";
        removes = image.removeObject != 0;
    }
    part.mayRemoveItem = removes && (kind & kMaidDataImage) != 0;
    return part;
}

// The room for one picture. Plain memory, because nothing needs to fill it first.
class DataReceiver::Buffer
{
public:
    explicit Buffer(const Part& part)
        : total(part.total), isFile(part.isFile), m_bytes(allocate(part.total))
    {}
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() { std::free(m_bytes); }  // NOLINT(cppcoreguidelines-no-malloc)

    unsigned char* bytes() const { return m_bytes; }

    const std::uint64_t total;
    const bool isFile;
    std::uint64_t offset = 0;

private:
    static unsigned char* allocate(std::uint64_t size)
    {
        const auto bytes = static_cast<std::size_t>(size);
        if (bytes != size || size > kMostBytes) {
            return nullptr;
        }
        // NOLINTNEXTLINE(cppcoreguidelines-no-malloc)
        void* const room = std::malloc(std::max<std::size_t>(bytes, 1));
        if (room != nullptr) {
            platform::expectWholeUse(room, bytes);
        }
        return static_cast<unsigned char*>(room);
    }

    unsigned char* const m_bytes;
};

DataReceiver::DataReceiver(std::int32_t itemId, std::shared_ptr<ModuleHeartbeat> heartbeat)
    : m_itemId(itemId), m_heartbeat(std::move(heartbeat))
{}

DataReceiver::~DataReceiver() = default;

MaidResult DataReceiver::take(const void* info, const void* data)
{
    m_heartbeat->note();
    if (info == nullptr) {
        return kMaidFileFailed;
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    return takePart(Part::of(info), data);
}

MaidResult DataReceiver::takePart(const Part& part, const void* data)
{
    if (!m_buffer) {
        auto buffer = std::make_unique<Buffer>(part);
        if (buffer->bytes() == nullptr) {
            Console::puts("There is not enough memory.");
            return kMaidOutOfMemory;
        }
        m_buffer = std::move(buffer);
    }
    if (part.total != m_buffer->total || part.isFile != m_buffer->isFile ||
        (data == nullptr && part.length > 0)) {
        return kMaidFileFailed;
    }
    if (part.length > m_buffer->total - m_buffer->offset) {
        return kMaidOutOfMemory;
    }
    if (part.length > 0) {
        std::memcpy(m_buffer->bytes() + m_buffer->offset, data,
                    static_cast<std::size_t>(part.length));
    }
    if (m_buffer->offset + part.length < m_buffer->total) {
        m_buffer->offset += part.length;
        return kMaidOk;
    }
    return finish(part);
}

// The picture is complete. Refused, all is as it was before the last part, which the module may
// deliver again: the camera keeps its picture. Once bytes were written that is over, whatever
// became of them: the data was taken over then, unless there is no memory to tell of it.
MaidResult DataReceiver::finish(const Part& part)
{
    // An empty folder text never forms a path: it would lie in the root folder.
    const std::string folder = g_szExportFolder.text();
    if (folder.empty()) {
        note(kLastFileError);
        return kMaidFileFailed;
    }
    const auto mayMake = [](const std::string& path) {
        LastFile::check(path);  // before there is a file that nobody can be told of
        return true;
    };
    NewPicture picture = newPicture(folder, kVendorWord, part.extension, mayMake);
    if (!picture.file) {
        return kMaidFileFailed;
    }
    const Written written = write(std::move(picture.file));
    if (part.isFile && written != Written::whole) {
        platform::removeFile(picture.completePath.c_str());
        note(kLastFileError);
        if (written == Written::notClosed) {
            return kMaidFileFailed;
        }
    } else if (doOrGiveUp("a picture", [&] { note(picture.path); })) {
        m_mayRemoveItem = m_mayRemoveItem || part.mayRemoveItem;
    } else {  // nobody would be told of the file
        platform::removeFile(picture.completePath.c_str());
        return kMaidOutOfMemory;
    }
    m_buffer = nullptr;
    return kMaidOk;
}

// Writes the picture and closes the file. A picture of nothing counts as written in part.
DataReceiver::Written DataReceiver::write(platform::File file)
{
    const auto total = static_cast<std::size_t>(m_buffer->total);
    std::size_t done = 0;
    bool good = total > 0;
    while (good && done < total) {
        const std::size_t size = std::min(kWriteSize, total - done);
        good = std::fwrite(m_buffer->bytes() + done, 1, size, file.get()) == size;
        done += size;
        m_heartbeat->note();
    }
    const bool isClosed = std::fclose(file.release()) == 0;
    if (!good) {
        return Written::inPart;
    }
    return isClosed ? Written::whole : Written::notClosed;
}

void DataReceiver::note(std::string result)
{
    m_results.reserve(m_results.size() + 1);
    g_szLastFile.set(result);
    m_results.push_back(std::move(result));
}

std::vector<std::string> DataReceiver::results() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_results;
}

bool DataReceiver::mayRemoveItem() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_mayRemoveItem;
}

Handles<DataReceiver>& receivers()
{
    // Never destroyed: a module that was left behind may deliver data at any time.
    static auto* const all = new Handles<DataReceiver>;
    return *all;
}

MaidResult MAIDAPI receiveData(MaidReference reference, const void* info, const void* data)
{
    MaidResult result = kMaidOutOfMemory;
    const bool taken = doOrGiveUp("a part of a picture", [&] {
        const std::shared_ptr<DataReceiver> receiver = receivers().find(reference);
        result = receiver ? receiver->take(info, data) : kMaidFileFailed;
    });
    if (!taken) {
        Console::puts("There is not enough memory.");
    }
    return result;
}

}  // namespace nikon
