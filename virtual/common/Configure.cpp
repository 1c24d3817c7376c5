// Settings: lines of text, from a test or from the file that the environment names.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "common/Platform.h"
#include "common/Text.h"
#include "common/World.h"

namespace steering {

namespace {

// The number of a section "camera 1"; nothing for other texts.
std::optional<std::int64_t> cameraOfSection(const std::string& section)
{
    const std::vector<std::string> parts = words(section);
    return parts.size() == 2 && parts[0] == "camera" ? integer(parts[1]) : std::nullopt;
}

}  // namespace

std::string World::configureLine(const std::string& line, int& camera)
{
    const SettingLine parsed = parseSettingLine(line);
    if (parsed.isBad) {
        return "a setting is \"key = value\"";
    }
    if (!parsed.section.empty()) {
        const auto number = cameraOfSection(parsed.section);
        if (number == cameraCount()) {
            addFactoryCamera();
        }
        const bool isGivenOut = number && *number >= 0 && *number < cameraCount();
        camera = isGivenOut ? static_cast<int>(*number) : -1;
        return hasCamera(camera) ? "" : "a section is \"[camera N]\"";
    }
    if (parsed.key.empty()) {
        return {};
    }
    if (parsed.key == "event") {
        return eventRules.add(parsed.value);
    }
    if (settings.has(parsed.key)) {
        std::string problem = settings.set(parsed.key, parsed.value);
        applyOptions();
        return problem;
    }
    return configureOwn(parsed.key, parsed.value, camera);
}

int World::configure(const std::string& text)
{
    std::istringstream stream(text);
    std::string line;
    int camera = 0;
    for (int number = 1; std::getline(stream, line); ++number) {
        const std::string problem = configureLine(line, camera);
        if (!problem.empty()) {
            lastError = problem;
            return number;
        }
    }
    return 0;
}

std::string World::describeSettings() const
{
    std::string text = settings.text();
    for (int camera = 0; camera < cameraCount(); ++camera) {
        if (hasCamera(camera)) {
            text += "[camera " + std::to_string(camera) + "]\n" + describeCamera(camera);
        }
    }
    return text;
}

void World::readEnvironment(const char* name)
{
    const std::string logPath = environment("LUMATIE_VIRTUAL_LOG");
    if (!log.appendTo(logPath)) {
        std::fprintf(stderr, "virtual camera: cannot write %s\n", logPath.c_str());
    }

    const std::string path = environment(name);
    if (path == readConfiguration) {
        return;
    }
    readConfiguration = path;
    if (path.empty()) {
        return;
    }
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file) {
        std::fprintf(stderr, "virtual camera: cannot read %s\n", path.c_str());
    } else if (const int line = configure(text.str())) {
        std::fprintf(stderr, "virtual camera: %s, line %d: %s\n", path.c_str(), line,
                     lastError.c_str());
    }
}

}  // namespace steering
