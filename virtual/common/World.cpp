#include "common/World.h"

#include <algorithm>
#include <chrono>

namespace virtualcamera {

void SharedOptions::addTo(Settings& settings)
{
    settings.add("shutter.lag_ms", lagMs, 0, 3600000);
    settings.add("shutter.scale", exposureScale, 0.0, 1000.0);
    settings.add("shutter.exposure_ms", exposureMs, -1, 86400000);
    settings.add("shutter.until_told", untilTold, 0, 2);
    settings.add("shutter.noise_reduction", noiseReduction, 0, 1);
    settings.add("picture.width", width, 16, kFullWidth);
    settings.add("picture.height", height, 16, kFullWidth);
    settings.add("picture.full_size", fullSize, 0, 1);
    settings.add("picture.size", jpegSize, 0, 100000000);
    settings.add("picture.raw_size", rawSize, 0, 100000000);
    settings.add("picture.keep", keptFiles, 0, 1000000);
    settings.add("picture.folder", folder.path(),
                 [this](const std::string& path) { return folder.use(path); });
    settings.add("picture.clock", clock, 0, 253402300799);
    settings.add("scene.light", light, -10.0, 30.0);
    settings.add("transfer.rate", transferRate, 0.0, 1e6);
    settings.add("log.lines", logLines, 0, 1000000);
}

std::int64_t SharedOptions::pictureTime() const
{
    if (clock != 0) {
        return clock;
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

int World::refuse(const std::string& reason)
{
    lastError = reason;
    return 0;
}

int World::eventCount(std::optional<std::uint32_t> code) const
{
    int count = 0;
    for (const auto& [delivered, times] : deliveries) {
        count += !code || code == delivered ? times : 0;
    }
    return count;
}

void World::hang(Lock& lock, const std::string& function, const std::function<bool()>& isOver)
{
    const auto self = hanging.insert(hanging.end(), function);
    const unsigned epoch = hangEpoch;
    changed.notify_all();
    changed.wait(lock, [&] { return hangEpoch != epoch || isOver(); });
    hanging.erase(self);
}

bool World::isHanging(const std::string& function) const
{
    return std::any_of(hanging.begin(), hanging.end(), [&](const std::string& name) {
        return function == "*" || function == name;
    });
}

int World::releaseHangs()
{
    ++hangEpoch;
    changed.notify_all();
    return static_cast<int>(hanging.size());
}

void World::resetShared()
{
    ++hangEpoch;
    eventRules.clear();
    log.clear();
    lastError.clear();
    deliveries.clear();
}

void World::forgetShared()
{
    log.appendTo("");
    log.clear();
    log.forgetThreads();
    forget(settings);
    forget(eventRules);
    forget(lastError);
    forget(readConfiguration);
    forget(deliveries);
}

}  // namespace virtualcamera
