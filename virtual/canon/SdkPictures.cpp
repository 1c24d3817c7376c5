// Pictures: directory items, streams, downloads.
#include <algorithm>
#include <cstring>

#include "canon/Call.h"

namespace vc = virtualcanon;
using vc::Bytes;
using vc::Call;
using vc::CallSpec;
using vc::Clock;
using vc::Kind;
using vc::Object;
using vc::shown;
namespace result = vc::result;

namespace {

EdsError itemInfo(Call& call, EdsDirectoryItemRef reference, EdsDirectoryItemInfo* info)
{
    const Object* object = call.object(reference, Kind::kItem);
    if (object == nullptr) {
        return result::kInvalidHandle;
    }
    const vc::Item& item = *object->item;
    const EdsError error = call.check(*item.connection, true);
    if (error != result::kOk) {
        return error;
    }
    if (!call.isGiven(info, "the record")) {
        return result::kInvalidPointer;
    }

    *info = EdsDirectoryItemInfo{};
    vc::fillExtra(call.world().options.extraBytes, info);
    if (item.file == nullptr) {
        info->isFolder = 1;
        std::memcpy(info->szFileName, "100VIRTU", 8);
        return result::kOk;
    }
    info->size = static_cast<std::uint64_t>(item.file->size);
    info->groupID = static_cast<std::uint32_t>(item.file->shot);
    const std::string& name = item.file->name;
    if (!name.empty()) {
        std::memcpy(info->szFileName, name.data(), std::min(name.size(), kEdsMaxName));
    }
    return result::kOk;
}

EdsError createFileStream(Call& call, const char* path, std::uint32_t disposition,
                          std::uint32_t access, EdsStreamRef* stream)
{
    if (!call.isGiven(path, "the path") || !call.isGiven(stream, "the stream")) {
        return result::kInvalidPointer;
    }
    *stream = nullptr;
    Object object;
    object.kind = Kind::kStream;
    object.stream = std::make_shared<vc::Stream>();
    const EdsError error = object.stream->open(path, disposition, access);
    if (error == result::kOk) {
        *stream = call.world().objects.add(std::move(object));
    }
    return error;
}

EdsError setProgress(Call& call, EdsBaseRef reference, EdsProgressCallback callback,
                     std::uint32_t option, void* context)
{
    Object* object = call.object(reference, Kind::kNone);
    if (object == nullptr || object->stream == nullptr) {
        return result::kInvalidHandle;
    }
    if (option > 2) {
        return result::kInvalidParameter;
    }
    object->stream->progress = {callback, option, context};
    return result::kOk;
}

// A transfer of one file, a piece at a time.
class Transfer
{
public:
    Transfer(Call& call, std::shared_ptr<vc::Item> item, std::int64_t size,
             std::shared_ptr<vc::Stream> stream)
        : m_call(call), m_item(std::move(item)), m_size(size), m_stream(std::move(stream))
    {}

    EdsError run()
    {
        const std::int64_t steps = m_call.world().options.steps;
        EdsError error = meetFault(0);
        if (error == result::kOk) {
            error = report(0);
        }
        for (std::int64_t step = 1; step <= steps && error == result::kOk; ++step) {
            const std::int64_t percent = step * 100 / steps;
            error = transferUpTo(m_size * step / steps);
            if (error == result::kOk) {
                error = meetFault(percent);
            }
            if (error == result::kOk) {
                error = report(percent);
            }
        }
        return error == result::kOk ? finish() : error;
    }

private:
    // A fault that was ordered for some share of the file.
    EdsError meetFault(std::int64_t percent)
    {
        const int at = m_call.fault().percent;
        if (at >= 0 && percent >= at) {
            if (const auto end = m_call.applyFault()) {
                return *end;
            }
        }
        return m_call.check(*m_item->connection, true);
    }

    // Files are written with the lock given up: a disk may be slow.
    template <typename Work>
    auto unlocked(Work work)
    {
        m_call.lock().unlock();
        const auto outcome = work();
        m_call.lock().lock();
        return outcome;
    }

    EdsError transferUpTo(std::int64_t end)
    {
        const std::int64_t diskFullAfter = m_call.world().options.diskFullAfter;
        const std::uint8_t* data = m_item->bytes->data() + m_item->position + m_done;
        const auto length = static_cast<std::size_t>(end - m_done);
        const EdsError error =
            unlocked([&] { return m_stream->write(data, length, diskFullAfter); });
        m_done = end;

        const double rate = m_call.world().options.transferRate;
        if (error == result::kOk && rate > 0) {
            const auto needed = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(static_cast<double>(m_done) / (rate * 1e6)));
            if (!m_call.sleepUntil(m_start + needed)) {
                return result::kInternal;
            }
        }
        return error;
    }

    EdsError report(std::int64_t percent)
    {
        constexpr std::uint32_t kOnlyAtEnd = 1;
        const vc::Progress& progress = m_stream->progress;
        const bool isWanted =
            progress.option == 2 || (progress.option == kOnlyAtEnd && percent == 100);
        if (progress.function == nullptr || !isWanted) {
            return result::kOk;
        }
        std::int32_t cancel = 0;
        unlocked([&] {
            return progress.function(static_cast<std::uint32_t>(percent), progress.context,
                                     &cancel);
        });
        if (cancel != 0) {
            return result::kCancelled;
        }
        return m_call.check(*m_item->connection, true);
    }

    EdsError finish()
    {
        const EdsError error = unlocked([&] { return m_stream->finish(); });
        m_item->position += m_size;
        if (m_item->position >= m_item->file->size) {
            m_item->position = 0;
            m_item->file->downloaded += error == result::kOk ? 1 : 0;
        }
        return error;
    }

    Call& m_call;
    const std::shared_ptr<vc::Item> m_item;
    const std::int64_t m_size;
    const std::shared_ptr<vc::Stream> m_stream;
    std::int64_t m_done = 0;
    const Clock::time_point m_start = Clock::now();
};

EdsError download(Call& call, EdsDirectoryItemRef reference, std::uint64_t size,
                  EdsStreamRef streamReference)
{
    const Object* object = call.object(reference, Kind::kItem);
    const Object* target = call.object(streamReference, Kind::kStream);
    if (object == nullptr || target == nullptr) {
        return result::kInvalidHandle;
    }
    const std::shared_ptr<vc::Item> item = object->item;
    const EdsError error = call.check(*item->connection, true);
    if (error != result::kOk) {
        return error;
    }
    const bool isFile = item->file != nullptr && item->bytes != nullptr;
    if (!isFile || size > static_cast<std::uint64_t>(item->file->size - item->position)) {
        call.misuse("size " + std::to_string(size) + " is more than is left of " +
                    shown(reference));
        return result::kInvalidParameter;
    }
    return Transfer(call, item, static_cast<std::int64_t>(size), target->stream).run();
}

EdsError downloadComplete(Call& call, EdsDirectoryItemRef reference)
{
    const Object* object = call.object(reference, Kind::kItem);
    if (object == nullptr) {
        return result::kInvalidHandle;
    }
    const EdsError error = call.check(*object->item->connection, true);
    if (error != result::kOk) {
        return error;
    }
    if (object->item->file == nullptr) {
        return result::kInvalidParameter;
    }
    ++object->item->file->completed;
    return result::kOk;
}

}  // namespace

extern "C" {

EdsError EDSAPI EdsGetDirectoryItemInfo(EdsDirectoryItemRef item, EdsDirectoryItemInfo* info)
{
    CallSpec spec{"EdsGetDirectoryItemInfo", shown(item), item};
    spec.talksToCamera = true;
    return vc::answer(spec, [&](Call& call) { return itemInfo(call, item, info); });
}

EdsError EDSAPI EdsCreateFileStream(const char* path, std::uint32_t disposition,
                                    std::uint32_t access, EdsStreamRef* stream)
{
    const CallSpec spec{
        "EdsCreateFileStream",
        vc::arguments({vc::shownText(path), std::to_string(disposition), std::to_string(access)})};
    return vc::answer(spec, [&](Call& call) {
        return createFileStream(call, path, disposition, access, stream);
    });
}

EdsError EDSAPI EdsSetProgressCallback(EdsBaseRef stream, EdsProgressCallback callback,
                                       std::uint32_t option, void* context)
{
    const CallSpec spec{"EdsSetProgressCallback",
                        vc::arguments({shown(stream), std::to_string(option)}), stream};
    return vc::answer(
        spec, [&](Call& call) { return setProgress(call, stream, callback, option, context); });
}

EdsError EDSAPI EdsDownload(EdsDirectoryItemRef item, std::uint64_t size, EdsStreamRef stream)
{
    CallSpec spec{"EdsDownload", vc::arguments({shown(item), std::to_string(size), shown(stream)}),
                  item};
    spec.talksToCamera = true;
    return vc::answer(spec, [&](Call& call) { return download(call, item, size, stream); });
}

EdsError EDSAPI EdsDownloadComplete(EdsDirectoryItemRef item)
{
    CallSpec spec{"EdsDownloadComplete", shown(item), item};
    spec.talksToCamera = true;
    return vc::answer(spec, [&](Call& call) { return downloadComplete(call, item); });
}

}  // extern "C"
