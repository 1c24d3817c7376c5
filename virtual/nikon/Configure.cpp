// Settings: lines of text, from a test or from the file that the environment names.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/World.h"

namespace virtualnikon {

namespace {

using steering::integer;
using steering::words;

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    std::string part;
    while (std::getline(stream, part, separator)) {
        parts.emplace_back(steering::trimmed(part));
    }
    return parts;
}

std::optional<std::uint32_t> code(const std::string& text)
{
    const auto number = integer(text);
    if (!number || *number < 0 || *number > 0xFFFFFFFFLL) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*number);
}

// "corrupt.source.0x8112.count"
std::string corrupt(World& world, const std::vector<std::string>& key, const std::string& value)
{
    const auto level = key.size() == 4 ? levelNamed(key[1]) : std::nullopt;
    const auto id = key.size() != 4   ? std::nullopt
                    : key[2] == "all" ? std::optional(kAllCapabilities)
                                      : code(key[2]);
    if (!level || !id) {
        return "an untruth is corrupt.LEVEL.CAPABILITY.WHAT";
    }
    std::string problem = world.untruths[{*level, *id}].set(key[3], value);
    const bool isOfAll = *id == kAllCapabilities && key[3] == "count";
    if (problem.empty() && (isOfAll || Untruth::isOfDescriptor(key[3]))) {
        raiseDescriptorChange(world, *level);
    }
    return problem;
}

std::string setValue(World& world, const Camera& camera, std::uint32_t id, const std::string& value)
{
    const auto number = code(value);
    const auto changes = number ? camera.body->set(id, *number) : std::nullopt;
    if (!changes) {
        return "no such capability or position";
    }
    raiseChanges(world, camera, *changes);
    return {};
}

std::string setTexts(World& world, const Camera& camera, std::uint32_t id, const std::string& value)
{
    std::optional<std::vector<std::string>> texts;
    if (value != "own") {
        texts = split(value, '|');
    }
    const auto changes = camera.body->setTexts(id, texts);
    if (!changes) {
        return "no such list of texts";
    }
    raiseChanges(world, camera, *changes);
    return {};
}

std::string configureCamera(World& world, Camera& camera, const std::string& key,
                            const std::string& value)
{
    if (key == "camera.name") {
        camera.body->setName(value);
        return {};
    }
    const auto number = code(value);
    if (!number) {
        return "no such setting, or no number: " + key;
    }
    if (key == "camera.id") {
        camera.body->setId(*number);
    } else if (key == "camera.mode") {
        raiseChanges(world, camera, camera.body->turnDial(*number));
    } else if (key == "camera.plugged") {
        if (*number != 0) {
            plug(world, camera);
        } else {
            unplug(world, camera);
        }
    } else {
        return "no such setting: " + key;
    }
    return {};
}

// The camera of a section "camera 1"; the next free number makes one.
std::shared_ptr<Camera> cameraOfSection(World& world, const std::string& section)
{
    const std::vector<std::string> parts = words(section);
    const auto number =
        parts.size() == 2 && parts[0] == "camera" ? integer(parts[1]) : std::nullopt;
    const auto next = static_cast<std::int64_t>(world.cameras.size());
    if (!number || *number < 0 || *number > next) {
        return nullptr;
    }
    if (*number < next) {
        return world.camera(static_cast<int>(*number));
    }
    return addCamera(world, "Virtual NIKON", static_cast<std::uint32_t>(next) + 1);
}

void apply(World& world)
{
    world.log.keep(static_cast<std::size_t>(world.options.logLines));
    for (const auto& camera : world.cameras) {
        if (camera != nullptr) {
            camera->body->setLight(world.options.light);
        }
    }
}

std::string environment(const char* name)
{
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing sets it here
    return value == nullptr ? "" : value;
}

}  // namespace

std::string configure(World& world, const std::string& key, const std::string& value,
                      const std::shared_ptr<Camera>& camera)
{
    if (key == "fault") {
        return world.rules.add(value);
    }
    if (key == "event") {
        return world.eventRules.add(value);
    }
    if (world.settings.has(key)) {
        std::string problem = world.settings.set(key, value);
        apply(world);
        return problem;
    }
    const std::vector<std::string> parts = split(key, '.');
    if (!parts.empty() && parts[0] == "corrupt") {
        return corrupt(world, parts, value);
    }
    if (camera == nullptr) {
        return "no such camera";
    }
    const auto id = parts.size() == 2 ? code(parts[1]) : std::nullopt;
    if (id && parts[0] == "value") {
        return setValue(world, *camera, *id, value);
    }
    if (id && parts[0] == "texts") {
        return setTexts(world, *camera, *id, value);
    }
    return configureCamera(world, *camera, key, value);
}

int configure(World& world, const std::string& text)
{
    std::istringstream stream(text);
    std::shared_ptr<Camera> camera = world.camera(0);
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        const steering::SettingLine parsed = steering::parseSettingLine(line);
        std::string problem = parsed.isBad ? "a setting is \"key = value\"" : "";
        if (problem.empty() && !parsed.section.empty()) {
            camera = cameraOfSection(world, parsed.section);
            problem = camera == nullptr ? "a section is \"[camera N]\"" : "";
        } else if (problem.empty() && !parsed.key.empty()) {
            problem = configure(world, parsed.key, parsed.value, camera);
        }
        if (!problem.empty()) {
            world.lastError = problem;
            return number;
        }
    }
    return 0;
}

std::string describeSettings(const World& world)
{
    std::string text = world.settings.text();
    for (const auto& camera : world.cameras) {
        if (camera == nullptr) {
            continue;
        }
        const Body& body = *camera->body;
        text += "[camera " + std::to_string(body.number()) + "]\n";
        text += "camera.name = " + body.name() + "\n";
        text += "camera.id = " + std::to_string(body.id()) + "\n";
        text += "camera.plugged = " + std::string(body.isPlugged ? "1" : "0") + "\n";
        text += "camera.mode = " + std::to_string(body.mode()) + "\n";
        for (const Capability& capability : body.capabilities()) {
            const std::uint32_t value =
                capability.elementType == 0 ? capability.number : capability.current;
            text += "value." + steering::hexadecimal(capability.id) + " = " +
                    std::to_string(value) + "\n";
        }
    }
    return text;
}

void readEnvironment(World& world)
{
    const std::string log = environment("LUMATIE_VIRTUAL_LOG");
    if (!world.log.appendTo(log)) {
        std::fprintf(stderr, "virtual camera: cannot write %s\n", log.c_str());
    }

    const std::string path = environment("LUMATIE_VIRTUAL_NIKON");
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
    } else if (const int line = configure(world, text.str())) {
        std::fprintf(stderr, "virtual camera: %s, line %d: %s\n", path.c_str(), line,
                     world.lastError.c_str());
    }
}

}  // namespace virtualnikon
