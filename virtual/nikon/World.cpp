#include "nikon/World.h"

#include "common/Maker.h"
#include "nikon/Cameras.h"
#include "nikon/Codes.h"

namespace virtualnikon {

namespace {

void addShootingSettings(virtualcamera::Settings& settings, Options& options)
{
    options.addTo(settings);
    settings.add("shutter.pending", options.capturePending, 0, 1);
    settings.add("shutter.reads", options.reads, 0, 2);
    settings.add("shutter.sets", options.sets, 0, 1);
    settings.add("shutter.work_answer", options.workAnswer, 0, 1);
    settings.add("picture.file_type", options.fileType, kRows, 65535);
    settings.add("items.remove", options.remove, 0, 2);
    settings.add("items.newest_first", options.newestFirst, 0, 1);
    settings.add("items.thumbnails", options.thumbnails, 0, 1);
}

void addModuleSettings(virtualcamera::Settings& settings, Options& options)
{
    constexpr std::int64_t kHour = 3600000;
    settings.add("transfer.chunk", options.chunk, 1, 100000000);
    settings.add("transfer.per_call", options.chunksPerCall, 0, 1000000);
    settings.add("progress.calls", options.progress, 0, 2);
    settings.add("progress.total", options.data.progressTotal, -1, 0xFFFFFFFF);
    settings.add("complete.calls", options.completeCalls, 0, 1000000);
    settings.add("complete.ms", options.completeMs, 0, kHour);
    settings.add("complete.thread", options.completeThread, 0, 1);
    settings.add("complete.at_close", options.closeAborts, 0, 1);
    settings.add("events.in_all", options.eventsInAll, 0, 1);
    settings.add("events.on_set", options.eventsOnSet, 0, 1);
    settings.add("gone.code", options.goneCode, -0x80000000LL, 0x7FFFFFFF);
    settings.add("misuse.one_thread", options.oneThread, 0, 1);
    settings.add("misuse.data_procedure", options.dataProcedure, 0, 1);
}

void addCorruptionSettings(virtualcamera::Settings& settings, Options& options)
{
    constexpr std::int64_t kMost = 0xFFFFFFFF;
    settings.add("data.total", options.data.total, -1, kMost);
    settings.add("data.total_delta", options.data.totalDelta, -kMost, kMost);
    settings.add("data.length_delta", options.data.lengthDelta, -kMost, kMost);
    settings.add("data.row_bytes", options.data.rowBytes, -1, kMost);
    settings.add("data.kind", options.data.kind, -1, kMost);
    settings.add("data.file_type", options.data.fileType, -1, kMost);
    settings.add("data.repeat", options.data.repeat, 0, 1000);
    settings.add("data.missing", options.data.missing, 0, kMost);
    settings.add("data.extra", options.data.extra, 0, 1000);
    settings.add("data.empty", options.data.empty, 0, 1000);
    settings.add("data.null", options.data.null, 0, 1);
    settings.add("data.remove_flag", options.data.remove, -1, 0xFFFF);
    settings.add("data.go_on", options.data.goOn, 0, 1);
}

}  // namespace

World::World()
{
    addShootingSettings(settings, options);
    addModuleSettings(settings, options);
    addCorruptionSettings(settings, options);
    virtualnikon::addFactoryCamera(*this);
}

World& world()
{
    auto& world = virtualcamera::onlyOne<World>();
    static const virtualcamera::Unloader unloader;
    return world;
}

}  // namespace virtualnikon
