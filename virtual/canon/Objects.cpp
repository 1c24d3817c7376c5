#include "canon/Objects.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "canon/Codes.h"
#include "common/Platform.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

// A reference: the object's number, its kind, and four bits that are 0 as in an aligned pointer.
constexpr unsigned kNumberShift = 8;
constexpr unsigned kKindShift = 4;

constexpr std::array<const char*, 6> kKindNames{"none", "list",   "camera",
                                                "item", "stream", "image"};

EdsBaseRef dress(std::uintptr_t number, Kind kind)
{
    const std::uintptr_t value =
        (number << kNumberShift) | (static_cast<std::uintptr_t>(kind) << kKindShift);
    // Never followed; the interface wants a pointer.
    return reinterpret_cast<EdsBaseRef>(value);  // NOLINT(performance-no-int-to-ptr)
}

std::uintptr_t valueOf(const void* reference)
{
    return reinterpret_cast<std::uintptr_t>(reference);
}

std::uintptr_t numberIn(const void* reference)
{
    return valueOf(reference) >> kNumberShift;
}

// The kind a reference tells of itself, kNone when it cannot be one of ours.
Kind kindIn(const void* reference)
{
    const std::uintptr_t low = valueOf(reference) & 0xFFU;
    const std::uintptr_t kind = low >> kKindShift;
    const bool isOurs = (low & 0xFU) == 0 && kind >= 1 && kind < kKindNames.size();
    return isOurs ? static_cast<Kind>(kind) : Kind::kNone;
}

// What a library makes of the system's refusals.
std::uint32_t resultOf(int error, std::uint32_t otherwise)
{
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return result::kFileNotFound;
        case EACCES:
        case EPERM:
        case EROFS:
            return result::kFilePermission;
        case EMFILE:
        case ENFILE:
            return result::kTooManyFiles;
        case ENOSPC:
            return result::kDiskFull;
        case EEXIST:
            return result::kFileExists;
        default:
            return otherwise;
    }
}

// How the C library opens a file that is there, or makes one.
const char* modeFor(std::uint32_t disposition, std::uint32_t access)
{
    constexpr std::uint32_t kReadOnly = 0;
    switch (disposition) {
        case 0:
        case 1:
        case 4:
            return "wb+";
        default:
            return access == kReadOnly ? "rb" : "rb+";
    }
}

}  // namespace

Stream::~Stream()
{
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
}

std::uint32_t Stream::open(const std::string& path, std::uint32_t disposition, std::uint32_t access)
{
    if (disposition > 4 || access > 2) {
        return result::kInvalidParameter;
    }
    const bool isThere = virtualcamera::isThere(path);
    if (disposition == 0 && isThere) {
        return result::kFileExists;
    }
    if (disposition == 4 && !isThere) {
        return result::kFileNotFound;
    }
    if (virtualcamera::isFolder(path)) {
        return result::kFileNotOpened;
    }
    errno = 0;
    m_file = std::fopen(path.c_str(), modeFor(disposition, access));
    if (m_file == nullptr && disposition == 3) {
        m_file = std::fopen(path.c_str(), "wb+");
    }
    m_path = path;
    return m_file != nullptr ? result::kOk : resultOf(errno, result::kFileNotOpened);
}

std::uint32_t Stream::write(const std::uint8_t* data, std::size_t size, std::int64_t failAfter)
{
    if (m_file == nullptr) {
        memory.insert(memory.end(), data, data + size);
        return result::kOk;
    }

    std::size_t allowed = size;
    if (failAfter >= 0) {
        const std::int64_t left = std::max<std::int64_t>(0, failAfter - m_written);
        allowed = std::min(size, static_cast<std::size_t>(left));
    }
    errno = 0;
    if (std::fwrite(data, 1, allowed, m_file) != allowed) {
        return resultOf(errno, result::kFileWrite);
    }
    m_written += static_cast<std::int64_t>(allowed);
    return allowed == size ? result::kOk : result::kDiskFull;
}

std::uint32_t Stream::finish()
{
    if (m_file == nullptr) {
        return result::kOk;
    }
    errno = 0;
    if (std::fflush(m_file) != 0) {
        return resultOf(errno, result::kFileWrite);
    }
    // Some systems let a folder be removed under an open file; the picture is lost then.
    return virtualcamera::isThere(m_path) ? result::kOk : result::kFileNotFound;
}

EdsBaseRef ObjectTable::add(Object object)
{
    const EdsBaseRef reference = dress(++m_last, object.kind);
    m_objects.emplace(reference, std::move(object));
    return reference;
}

Object* ObjectTable::find(EdsBaseRef reference)
{
    const auto found = m_objects.find(reference);
    return found == m_objects.end() ? nullptr : &found->second;
}

EdsBaseRef ObjectTable::cameraOf(const Connection* connection) const
{
    for (const auto& [reference, object] : m_objects) {
        if (object.kind == Kind::kCamera && object.connection.get() == connection) {
            return reference;
        }
    }
    return nullptr;
}

std::uint32_t ObjectTable::release(EdsBaseRef reference)
{
    const auto found = m_objects.find(reference);
    if (found == m_objects.end()) {
        return result::kNoReference;
    }
    const std::uint32_t left = --found->second.references;
    if (left == 0) {
        m_objects.erase(found);
    }
    return left;
}

std::vector<std::string> ObjectTable::leaks() const
{
    std::vector<std::string> texts;
    for (const auto& [reference, object] : m_objects) {
        // An application that finds no camera has little reason to tidy up an empty list.
        if (object.kind == Kind::kList && object.cameras.empty()) {
            continue;
        }
        texts.push_back(nameOf(reference) + " with " + std::to_string(object.references) +
                        (object.references == 1 ? " reference" : " references"));
    }
    return texts;
}

int ObjectTable::count(Kind kind) const
{
    return static_cast<int>(std::count_if(
        m_objects.begin(), m_objects.end(),
        [kind](const auto& entry) { return kind == Kind::kNone || entry.second.kind == kind; }));
}

bool ObjectTable::isStale(EdsBaseRef reference) const
{
    return kindIn(reference) != Kind::kNone && numberIn(reference) >= 1 &&
           numberIn(reference) <= m_last && m_objects.count(reference) == 0;
}

std::string ObjectTable::nameOf(const void* reference)
{
    if (reference == nullptr) {
        return "null";
    }
    const Kind kind = kindIn(reference);
    if (kind == Kind::kNone || numberIn(reference) == 0) {
        return virtualcamera::hexadecimal(valueOf(reference));
    }
    return std::string(kKindNames[static_cast<std::size_t>(kind)]) + "#" +
           std::to_string(numberIn(reference));
}

}  // namespace virtualcanon
