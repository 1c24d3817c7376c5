// A camera's own settings as text.
#include <algorithm>

#include "canon/Codes.h"
#include "canon/Maker.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

using virtualcamera::integer;
using virtualcamera::words;

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
        const std::string_view text = virtualcamera::trimmed(std::string_view(value).substr(4));
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
    if (key == "camera.port") {
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

}  // namespace

std::string Maker::configureOwn(const std::string& key, const std::string& value, int camera)
{
    const std::shared_ptr<Body> found = m_world.body(camera);
    if (found == nullptr) {
        return "no such camera";
    }

    const std::size_t dot = key.find('.', key.find('.') + 1);
    const std::size_t start = key.find('.') + 1;
    const auto id = code(key.substr(start, dot == std::string::npos ? dot : dot - start));
    if (startsWith(key, "value.") && id && dot == std::string::npos) {
        return setProperty(m_world, *found, *id, value);
    }
    if (startsWith(key, "list.") && id && dot == std::string::npos) {
        return setAllowed(m_world, *found, *id, value);
    }
    if (startsWith(key, "corrupt.") && id && dot != std::string::npos) {
        return corrupt(*found, *id, key.substr(dot + 1), value);
    }
    return configureCamera(m_world, *found, key, value);
}

std::string Maker::describeCamera(int number) const
{
    const Body& camera = *m_world.existing(number);
    std::string text;
    text += "camera.name = " + camera.printableName() + "\n";
    text += "camera.port = " + camera.portName + "\n";
    text += "camera.sub_type = " + std::to_string(camera.subType()) + "\n";
    text += "camera.plugged = " + std::string(camera.isPlugged ? "1" : "0") + "\n";
    text += "camera.asleep = " + std::string(camera.isAsleep ? "1" : "0") + "\n";
    if (camera.find(property::kMode) != nullptr) {
        text += "camera.mode = " + std::to_string(camera.value(property::kMode)) + "\n";
    }
    for (const std::uint32_t id : camera.ids()) {
        if (camera.find(id)->type == type::kNumber) {
            text += "value." + virtualcamera::hexadecimal(id) + " = " +
                    virtualcamera::hexadecimal(camera.value(id)) + "\n";
        }
    }
    return text;
}

}  // namespace virtualcanon
