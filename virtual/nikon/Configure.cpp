// A camera's own settings as text.
#include <optional>
#include <sstream>

#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/World.h"

namespace virtualnikon {

namespace {

using steering::integer;

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

}  // namespace

std::string World::configureOwn(const std::string& key, const std::string& value, int camera)
{
    if (key == "fault") {
        return rules.add(value);
    }
    const std::vector<std::string> parts = split(key, '.');
    if (!parts.empty() && parts[0] == "corrupt") {
        return corrupt(*this, parts, value);
    }
    const std::shared_ptr<Camera> found = this->camera(camera);
    if (found == nullptr) {
        return "no such camera";
    }
    const auto id = parts.size() == 2 ? code(parts[1]) : std::nullopt;
    if (id && parts[0] == "value") {
        return setValue(*this, *found, *id, value);
    }
    if (id && parts[0] == "texts") {
        return setTexts(*this, *found, *id, value);
    }
    return configureCamera(*this, *found, key, value);
}

std::string World::describeCamera(int number) const
{
    const Body& body = *camera(number)->body;
    std::string text;
    text += "camera.name = " + body.name() + "\n";
    text += "camera.id = " + std::to_string(body.id()) + "\n";
    text += "camera.plugged = " + std::string(body.isPlugged ? "1" : "0") + "\n";
    text += "camera.mode = " + std::to_string(body.mode()) + "\n";
    for (const Capability& capability : body.capabilities()) {
        const std::uint32_t value =
            capability.elementType == 0 ? capability.number : capability.current;
        text +=
            "value." + steering::hexadecimal(capability.id) + " = " + std::to_string(value) + "\n";
    }
    return text;
}

}  // namespace virtualnikon
