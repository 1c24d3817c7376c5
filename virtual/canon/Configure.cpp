// Settings as text: lines of a file or of a test.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "canon/Codes.h"
#include "canon/World.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

using steering::integer;
using steering::words;

std::optional<std::uint32_t> code(std::string_view text)
{
    const auto given = integer(text);
    if (!given || *given < -0x80000000LL || *given > 0xFFFFFFFFLL) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*given);
}

std::optional<Bytes> byteList(const std::vector<std::string>& parts, std::size_t first)
{
    Bytes bytes;
    for (std::size_t i = first; i < parts.size(); ++i) {
        const auto value = integer("0x" + parts[i]);
        if (!value || *value > 0xFF) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(*value));
    }
    return bytes;
}

// "0x70", "text Hello", "type 7 bytes 01 02 FF", "none"
std::string setProperty(World& world, Body& body, std::uint32_t id, const std::string& value)
{
    const std::shared_ptr<Connection> connection = world.connectionOf(body);
    const std::vector<std::string> parts = words(value);
    if (value == "none") {
        body.remove(id);
        return {};
    }
    if (const auto number = code(value)) {
        raiseChanges(world, connection, body.set(id, *number));
        return {};
    }
    if (!parts.empty() && parts[0] == "text") {
        const std::string_view text = steering::trimmed(std::string_view(value).substr(4));
        Bytes bytes(text.begin(), text.end());
        bytes.push_back(0);
        raiseChanges(world, connection, body.set(id, bytes, type::kText));
        return {};
    }
    if (parts.size() >= 3 && parts[0] == "type" && code(parts[1]) && parts[2] == "bytes") {
        if (const auto bytes = byteList(parts, 3)) {
            raiseChanges(world, connection, body.set(id, *bytes, code(parts[1])));
            return {};
        }
    }
    return "a property is a number, \"text ...\", \"type N bytes ...\" or \"none\"";
}

// "1 2 0x10", "own"
std::string setAllowed(World& world, Body& body, std::uint32_t id, const std::string& value)
{
    std::optional<Values> values;
    if (value != "own") {
        values.emplace();
        for (const std::string& word : words(value)) {
            const auto number = code(word);
            if (!number || values->size() == kEdsMaxDescElements) {
                return "allowed values are up to 128 numbers, or \"own\"";
            }
            values->push_back(static_cast<std::int32_t>(*number));
        }
    }
    raiseChanges(world, world.connectionOf(body), body.setAllowed(id, values));
    return {};
}

// corrupt.<id>.<what>
std::string corrupt(Body& body, std::uint32_t id, std::string_view what, const std::string& value)
{
    Property* entry = body.find(id);
    const auto number = code(value);
    const bool isOff = value == "off";
    if (entry == nullptr || (!number && !isOff)) {
        return "corrupt needs a property that exists, and a number or \"off\"";
    }
    if (what == "count") {
        entry->falseCount.reset();
        if (!isOff) {
            entry->falseCount = static_cast<std::int32_t>(*number);
        }
    } else if (what == "type") {
        entry->falseType = number;
    } else if (what == "size") {
        entry->falseSize = number;
    } else if (what == "unterminated") {
        entry->isUnterminated = number.value_or(0) != 0;
    } else if (what == "rubbish") {
        entry->hasRubbish = number.value_or(0) != 0;
    } else {
        return "corrupt knows count, type, size, unterminated and rubbish";
    }
    return {};
}

std::string setLens(World& world, Body& body, const std::string& value)
{
    Lens lens = Lens::kNone;
    if (value == "zoom") {
        lens = Lens::kZoom;
    } else if (value == "prime") {
        lens = Lens::kPrime;
    } else if (value != "none") {
        return "a lens is zoom, prime or none";
    }
    raiseChanges(world, world.connectionOf(body), body.setLens(lens));
    return {};
}

std::string configureCamera(World& world, Body& body, const std::string& key,
                            const std::string& value)
{
    const std::shared_ptr<Connection> connection = world.connectionOf(body);
    const auto number = integer(value);
    if (key == "camera.name") {
        const std::size_t length = std::min<std::size_t>(value.size(), kEdsMaxName);
        const Bytes name(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(length));
        raiseChanges(world, connection, body.setName(name));
    } else if (key == "camera.port") {
        body.portName = value;
    } else if (key == "camera.lens") {
        return setLens(world, body, value);
    } else if (key == "picture.name") {
        body.pictureName.assign(value.begin(), value.end());
        body.pictureName.resize(std::min(body.pictureName.size(), kEdsMaxName));
    } else if (!number || *number < 0) {
        return key + " is a number";
    } else if (key == "camera.sub_type") {
        body.setSubType(static_cast<std::uint32_t>(*number));
    } else if (key == "camera.plugged") {
        if (*number == 0) {
            unplug(world, body);
        }
        body.isPlugged = *number != 0;
    } else if (key == "camera.asleep") {
        body.isAsleep = *number != 0;
    } else if (key == "camera.dial_locked") {
        raiseChanges(world, connection, body.setDialLocked(*number != 0));
    } else {
        return "no such setting: " + key;
    }
    return {};
}

bool startsWith(const std::string& text, std::string_view start)
{
    return text.compare(0, start.size(), start) == 0;
}

// The camera of a section "camera 1"; the next free number makes one.
std::shared_ptr<Body> cameraOfSection(World& world, const std::string& section)
{
    const std::vector<std::string> parts = words(section);
    const auto number =
        parts.size() == 2 && parts[0] == "camera" ? integer(parts[1]) : std::nullopt;
    const auto next = static_cast<std::int64_t>(world.bodies.size());
    if (!number || *number < 0 || *number > next) {
        return nullptr;
    }
    if (*number < next) {
        return world.body(static_cast<int>(*number));
    }
    const std::string name = "Virtual EOS";
    return addBody(world, Bytes(name.begin(), name.end()), 1);
}

void apply(World& world)
{
    world.log.keep(static_cast<std::size_t>(world.options.logLines));
    for (const auto& body : world.bodies) {
        if (body != nullptr) {
            body->setLight(world.options.light);
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
                      const std::shared_ptr<Body>& body)
{
    if (key == "fault") {
        return world.faults.add(value);
    }
    if (key == "event") {
        return world.eventRules.add(value);
    }
    if (world.settings.has(key)) {
        std::string problem = world.settings.set(key, value);
        apply(world);
        return problem;
    }
    if (body == nullptr) {
        return "no such camera";
    }

    const std::size_t dot = key.find('.', key.find('.') + 1);
    const std::size_t start = key.find('.') + 1;
    const auto id = code(key.substr(start, dot == std::string::npos ? dot : dot - start));
    if (startsWith(key, "property.") && id && dot == std::string::npos) {
        return setProperty(world, *body, *id, value);
    }
    if (startsWith(key, "allowed.") && id && dot == std::string::npos) {
        return setAllowed(world, *body, *id, value);
    }
    if (startsWith(key, "corrupt.") && id && dot != std::string::npos) {
        return corrupt(*body, *id, key.substr(dot + 1), value);
    }
    return configureCamera(world, *body, key, value);
}

int configure(World& world, const std::string& text)
{
    std::istringstream stream(text);
    std::shared_ptr<Body> body = world.body(0);
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        const steering::SettingLine parsed = steering::parseSettingLine(line);
        std::string problem = parsed.isBad ? "a setting is \"key = value\"" : "";
        if (problem.empty() && !parsed.section.empty()) {
            body = cameraOfSection(world, parsed.section);
            problem = body == nullptr ? "a section is \"[camera N]\"" : "";
        } else if (problem.empty() && !parsed.key.empty()) {
            problem = configure(world, parsed.key, parsed.value, body);
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
    for (const auto& body : world.bodies) {
        if (body == nullptr) {
            continue;
        }
        text += "[camera " + std::to_string(body->number()) + "]\n";
        text += "camera.name = " + body->printableName() + "\n";
        text += "camera.port = " + body->portName + "\n";
        text += "camera.sub_type = " + std::to_string(body->subType()) + "\n";
        text += "camera.plugged = " + std::string(body->isPlugged ? "1" : "0") + "\n";
        text += "camera.asleep = " + std::string(body->isAsleep ? "1" : "0") + "\n";
        for (const std::uint32_t id : body->ids()) {
            if (body->find(id)->type == type::kNumber) {
                text += "property." + steering::hexadecimal(id) + " = " +
                        steering::hexadecimal(body->value(id)) + "\n";
            }
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

    const std::string path = environment("LUMATIE_VIRTUAL_CANON");
    if (path == world.readConfiguration) {
        return;
    }
    world.readConfiguration = path;
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    if (path.empty()) {
        return;
    }
    if (!file) {
        std::fprintf(stderr, "virtual camera: cannot read %s\n", path.c_str());
    } else if (const int line = configure(world, text.str())) {
        std::fprintf(stderr, "virtual camera: %s, line %d: %s\n", path.c_str(), line,
                     world.lastError.c_str());
    }
}

}  // namespace virtualcanon
