#include "common/Configure.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "common/Platform.h"
#include "common/Text.h"

namespace virtualcamera {

namespace {

// The number of a section "camera 1"; nothing for other texts.
std::optional<std::int64_t> cameraOfSection(const std::string& section)
{
    const std::vector<std::string> parts = words(section);
    return parts.size() == 2 && parts[0] == "camera" ? integer(parts[1]) : std::nullopt;
}

std::string configureShared(Maker& maker, const std::string& key, const std::string& value,
                            int camera)
{
    const bool isNumber = key == "camera.mode" || key == "camera.plugged";
    if (key != "camera.name" && !isNumber) {
        return maker.configureOwn(key, value, camera);
    }
    const auto number = integer(value);
    if (!maker.hasCamera(camera)) {
        return "no such camera";
    }
    if (!isNumber) {
        maker.nameCamera(camera, value);
    } else if (!number || *number < 0 || *number > 0xFFFFFFFFLL) {
        return key + " is a number";
    } else if (key == "camera.mode") {
        maker.turnDial(camera, static_cast<std::uint32_t>(*number));
    } else if (*number != 0) {
        maker.plugCamera(camera);
    } else {
        maker.unplugCamera(camera);
    }
    return {};
}

std::string configureLine(Maker& maker, const std::string& line, int& camera)
{
    World& world = maker.world();
    const SettingLine parsed = parseSettingLine(line);
    if (parsed.isBad) {
        return "a setting is \"key = value\"";
    }
    if (!parsed.section.empty()) {
        const auto number = cameraOfSection(parsed.section);
        if (number == maker.cameraCount()) {
            maker.addFactoryCamera();
        }
        const bool isGivenOut = number && *number >= 0 && *number < maker.cameraCount();
        camera = isGivenOut ? static_cast<int>(*number) : -1;
        return maker.hasCamera(camera) ? "" : "a section is \"[camera N]\"";
    }
    if (parsed.key.empty()) {
        return {};
    }
    if (parsed.key == "event") {
        return world.eventRules.add(parsed.value);
    }
    if (world.settings.has(parsed.key)) {
        std::string problem = world.settings.set(parsed.key, parsed.value);
        maker.applyOptions();
        return problem;
    }
    if (parsed.key == "fault") {
        return maker.addFault(parsed.value);
    }
    return configureShared(maker, parsed.key, parsed.value, camera);
}

}  // namespace

int configure(Maker& maker, const std::string& text)
{
    std::istringstream stream(text);
    std::string line;
    int camera = 0;
    for (int number = 1; std::getline(stream, line); ++number) {
        const std::string problem = configureLine(maker, line, camera);
        if (!problem.empty()) {
            maker.world().lastError = problem;
            return number;
        }
    }
    return 0;
}

std::string describeSettings(const Maker& maker)
{
    std::string text = maker.world().settings.text();
    for (int camera = 0; camera < maker.cameraCount(); ++camera) {
        if (maker.hasCamera(camera)) {
            text += "[camera " + std::to_string(camera) + "]\n" + maker.describeCamera(camera);
        }
    }
    return text;
}

void readEnvironment(Maker& maker, const char* name)
{
    World& world = maker.world();
    const std::string logPath = environment("LUMATIE_VIRTUAL_LOG");
    if (!world.log.appendTo(logPath)) {
        std::fprintf(stderr, "virtual camera: cannot write %s\n", logPath.c_str());
    }

    const std::string path = environment(name);
    if (path == world.readConfiguration) {
        return;
    }
    world.readConfiguration = path;
    if (path.empty()) {
        return;
    }
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file) {
        std::fprintf(stderr, "virtual camera: cannot read %s\n", path.c_str());
    } else if (const int line = configure(maker, text.str())) {
        std::fprintf(stderr, "virtual camera: %s, line %d: %s\n", path.c_str(), line,
                     world.lastError.c_str());
    }
}

}  // namespace virtualcamera
