#include "nikon/Transfer.h"

#include <algorithm>

#include "nikon/Codes.h"
#include "nikon/World.h"
#include "scene/PictureSource.h"

namespace virtualnikon {

namespace {

// An application that believes in a corrupt length reads at most this far behind the true end.
constexpr std::int64_t kMostPadding = std::int64_t{64} * 1024 * 1024;
constexpr int kThumbnailWidth = 160;
constexpr int kThumbnailHeight = 120;

bool isFile(const Transfer& transfer)
{
    return (transfer.kind & kMaidDataFile) != 0;
}

std::uint32_t told(std::int64_t given, std::uint32_t truth)
{
    return given < 0 ? truth : static_cast<std::uint32_t>(given);
}

std::uint32_t limited(std::int64_t value, std::int64_t most)
{
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(value, 0, most));
}

// The thumbnail is made when it is asked for.
std::shared_ptr<const Bytes> thumbnailOf(const Picture& picture)
{
    scene::PictureFacts facts = picture.facts;
    facts.width = kThumbnailWidth;
    facts.height = kThumbnailHeight;
    return std::make_shared<const Bytes>(scene::makeJpeg(facts));
}

void addParts(const Options& options, Transfer& transfer, std::size_t unit, std::size_t size)
{
    const std::size_t step =
        std::max<std::size_t>(unit, static_cast<std::size_t>(options.chunk) / unit * unit);
    const Part none;
    transfer.parts.insert(transfer.parts.end(), static_cast<std::size_t>(options.data.empty), none);
    const std::size_t heads = transfer.parts.size();
    for (std::size_t at = 0; at < size; at += step) {
        Part part;
        part.offset = at;
        part.size = std::min(step, size - at);
        const auto most = kMostPadding / static_cast<std::int64_t>(unit);
        const auto length = static_cast<std::int64_t>(part.size / unit);
        part.length = limited(length + options.data.lengthDelta, length + most);
        const auto times = static_cast<std::size_t>(options.data.repeat) + 1;
        transfer.parts.insert(transfer.parts.end(), times, part);
    }
    const Part last = transfer.parts.size() > heads ? transfer.parts.back() : none;
    const auto missing =
        std::min(transfer.parts.size(), static_cast<std::size_t>(options.data.missing));
    transfer.parts.resize(transfer.parts.size() - missing);
    transfer.parts.insert(transfer.parts.end(), static_cast<std::size_t>(options.data.extra), last);
}

// What the application's procedure gets.
struct Delivery {
    MaidFileInfo file{};
    MaidImageInfo image{};
    Bytes padded;
    const void* info = nullptr;
    const void* data = nullptr;
};

void prepare(const Options& options, const Transfer& transfer, const Part& part, Delivery& delivery)
{
    if (isFile(transfer)) {
        delivery.file.kind = transfer.kind;
        delivery.file.fileType = transfer.fileType;
        delivery.file.totalLength = transfer.total;
        delivery.file.reserved1 = static_cast<std::uint32_t>(part.offset);
        delivery.file.length = part.length;
        delivery.file.removeObject = transfer.removeFlag;
        delivery.info = &delivery.file;
    } else {
        delivery.image.kind = transfer.kind;
        delivery.image.totalRows = transfer.total;
        delivery.image.rows = part.length;
        delivery.image.rowBytes = transfer.rowBytes;
        delivery.image.removeObject = static_cast<std::uint16_t>(transfer.removeFlag);
        delivery.info = &delivery.image;
    }
    const std::uint8_t* start = transfer.bytes->data() + part.offset;
    const std::uint64_t unit = isFile(transfer) ? 1 : transfer.rowBytes;
    const std::uint64_t claimed = std::min<std::uint64_t>(
        part.length * unit, part.size + static_cast<std::uint64_t>(kMostPadding));
    if (claimed > part.size) {
        delivery.padded.assign(start, start + part.size);
        delivery.padded.resize(claimed, 0xEE);
        start = delivery.padded.data();
    }
    delivery.data = options.data.null != 0 ? nullptr : start;
}

// The time at which a part may be delivered at the given rate.
Clock::time_point dueTime(const Options& options, const Transfer& transfer, const Part& part)
{
    if (options.transferRate <= 0) {
        return transfer.start;
    }
    const double seconds =
        static_cast<double>(part.offset + part.size) / (options.transferRate * 1e6);
    return transfer.start +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

MaidResult deliverPart(World& world, Lock& lock, const Object& data, Transfer& transfer,
                       const Part& part)
{
    const auto found = data.procedures.find(kMaidCapDataProc);
    if (found == data.procedures.end()) {
        world.log.misuse("CapStart: the data procedure was taken away during the transfer");
        return result::kNoDataProc;
    }
    const MaidCallback callback = found->second;
    Delivery delivery;
    prepare(world.options, transfer, part, delivery);
    transfer.isInside = true;
    ++world.delivering;
    const Clock::time_point start = Clock::now();
    lock.unlock();
    const MaidResult result = reinterpret_cast<MaidDataProcedure>(callback.procedure)(
        callback.reference, delivery.info, delivery.data);
    lock.lock();
    --world.delivering;
    transfer.isInside = false;
    world.log.write("data " + data.name() + " " + std::to_string(part.length) + " of " +
                        std::to_string(transfer.total) + " = " + std::to_string(result),
                    start);
    return result;
}

void endTransfer(World& world, const PendingRef& pending, const Transfer& transfer)
{
    const ObjectRef data = pending->object;
    if (transfer.isImage) {
        ++transfer.picture->delivered;
        if (world.options.remove != 0 && data->item->isListed) {
            removeItem(world, *data->camera, data->item, world.options.remove == 2);
        }
    }
    finishPending(world, pending, kMaidOk);
}

bool isRunning(const std::list<PendingRef>& all, const PendingRef& pending)
{
    return !pending->isReady && pending->object->isOpen &&
           std::find(all.begin(), all.end(), pending) != all.end();
}

}  // namespace

std::shared_ptr<Transfer> planTransfer(const Options& options, const Object& data)
{
    auto transfer = std::make_shared<Transfer>();
    transfer->picture = data.item->picture;
    transfer->isImage = data.id != kMaidItemThumbnail;
    transfer->bytes =
        transfer->isImage ? data.item->picture->bytes : thumbnailOf(*data.item->picture);
    const Picture& picture = *transfer->picture;
    const bool isRows = transfer->isImage && picture.fileType == kRows;
    const std::uint32_t unit = isRows ? picture.rowBytes : 1;
    const std::uint32_t kind = isRows ? data.id : data.id | kMaidDataFile;
    const std::uint32_t fileType = transfer->isImage && !isRows
                                       ? static_cast<std::uint32_t>(picture.fileType)
                                       : static_cast<std::uint32_t>(kMaidFileJpeg);
    transfer->kind = told(options.data.kind, kind);
    transfer->fileType = told(options.data.fileType, fileType);
    transfer->rowBytes = told(options.data.rowBytes, unit);
    transfer->removeFlag = told(options.data.remove, options.remove != 0 ? 1 : 0);
    const auto truth = static_cast<std::uint32_t>(transfer->bytes->size() / unit);
    transfer->total =
        limited(told(options.data.total, truth) + options.data.totalDelta, 0xFFFFFFFF);
    transfer->start = Clock::now();
    addParts(options, *transfer, unit, transfer->bytes->size());
    ++transfer->picture->started;
    return transfer;
}

void runTransfer(World& world, Lock& lock, const PendingRef& pending, bool isWhole)
{
    const std::shared_ptr<Transfer> transfer = pending->transfer;
    if (transfer->isInside) {
        return;
    }
    for (std::int64_t count = 0; transfer->next < transfer->parts.size(); ++count) {
        const Part part = transfer->parts[transfer->next];
        const Clock::time_point due = dueTime(world.options, *transfer, part);
        if (!isWhole && (count >= std::max<std::int64_t>(1, world.options.chunksPerCall) ||
                         due > Clock::now())) {
            return;
        }
        world.changed.wait_until(lock, due, [&] { return due <= Clock::now(); });
        if (pending->object->isGone()) {
            finishPending(world, pending, static_cast<MaidResult>(world.options.goneCode));
            return;
        }
        ++transfer->next;
        const MaidResult result = deliverPart(world, lock, *pending->object, *transfer, part);
        if (!isRunning(world.pending, pending)) {
            return;
        }
        if (result != kMaidOk && world.options.data.goOn == 0) {
            finishPending(world, pending, result);
            return;
        }
        transfer->done += part.length;
        if (world.options.progress != 0) {
            showProgress(world, lock, *pending->object, pending->command, pending->parameter,
                         transfer->done, told(world.options.data.progressTotal, transfer->total));
        }
        if (!isRunning(world.pending, pending)) {
            return;
        }
    }
    endTransfer(world, pending, *transfer);
}

void showProgress(World& world, Lock& lock, const Object& object, std::uint32_t command,
                  std::uint32_t parameter, std::uint32_t done, std::uint32_t total)
{
    const auto found = object.procedures.find(kMaidCapProgressProc);
    if (found == object.procedures.end()) {
        return;
    }
    const MaidCallback callback = found->second;
    ++world.delivering;
    lock.unlock();
    reinterpret_cast<MaidProgressProcedure>(callback.procedure)(command, parameter,
                                                                callback.reference, done, total);
    lock.lock();
    --world.delivering;
    world.changed.notify_all();
}

}  // namespace virtualnikon
