#include "common/PictureFolder.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace virtualcamera {

namespace {

namespace fs = std::filesystem;

using Shots = std::map<std::string, std::vector<FolderFile>>;

struct Extension {
    std::string_view text;
    FileKind kind;
};

constexpr std::array<Extension, 10> kExtensions{{{".jpg", FileKind::kJpeg},
                                                 {".jpeg", FileKind::kJpeg},
                                                 {".tif", FileKind::kTiff},
                                                 {".tiff", FileKind::kTiff},
                                                 {".cr2", FileKind::kRaw},
                                                 {".cr3", FileKind::kRaw},
                                                 {".crw", FileKind::kRaw},
                                                 {".nef", FileKind::kRaw},
                                                 {".nrw", FileKind::kRaw},
                                                 {".dng", FileKind::kRaw}}};

std::string lowered(std::string text)
{
    for (char& letter : text) {
        if (letter >= 'A' && letter <= 'Z') {
            letter = static_cast<char>(letter - 'A' + 'a');
        }
    }
    return text;
}

// The shots in a folder by their stems. `problem` says why it cannot be read.
Shots shotsIn(const std::string& path, std::error_code& problem)
{
    Shots shots;
    fs::directory_iterator entry(fs::u8path(path), problem);
    for (; !problem && entry != fs::directory_iterator(); entry.increment(problem)) {
        const std::string name = entry->path().filename().u8string();
        const std::optional<FileKind> kind = kindOfFile(name);
        std::error_code ignored;
        // What begins with a dot is hidden: other systems leave files such as "._DSC_0001.JPG".
        if (kind && name.front() != '.' && entry->is_regular_file(ignored)) {
            shots[name.substr(0, name.rfind('.'))].push_back(
                {name, entry->path().u8string(), *kind});
        }
    }
    return shots;
}

}  // namespace

std::optional<FileKind> kindOfFile(const std::string& name)
{
    const std::size_t dot = name.rfind('.');
    const std::string own = dot == std::string::npos ? "" : lowered(name.substr(dot));
    const auto* const found =
        std::find_if(kExtensions.begin(), kExtensions.end(),
                     [&](const Extension& extension) { return extension.text == own; });
    return found == kExtensions.end() ? std::nullopt : std::optional(found->kind);
}

std::string PictureFolder::use(const std::string& path)
{
    if (!path.empty()) {
        std::error_code problem;
        const Shots shots = shotsIn(path, problem);
        if (problem) {
            return "picture.folder: " + path + ": " + problem.message();
        }
        if (shots.empty()) {
            return "picture.folder: there is no picture in " + path;
        }
    }
    m_path = path;
    m_last.clear();
    return {};
}

void PictureFolder::deliver(const FolderShot& shot, CallLog& log, const Read& read,
                            const Take& take)
{
    const std::vector<FolderFile> files = next(shot);
    if (files.empty()) {
        log.write("picture.folder: no picture any more in " + m_path, Clock::now());
    }
    for (const FolderFile& file : files) {
        if (const FileBytes bytes = read(file.path)) {
            take(file, bytes);
        } else {
            log.write("picture.folder: cannot read " + file.path, Clock::now());
        }
    }
}

std::vector<FolderFile> PictureFolder::next(const FolderShot& shot)
{
    std::error_code ignored;
    Shots shots = shotsIn(m_path, ignored);
    if (shots.empty()) {
        return {};
    }
    auto found = shots.upper_bound(m_last[shot.camera]);
    if (found == shots.end()) {
        found = shots.begin();
    }
    m_last[shot.camera] = found->first;

    std::vector<FolderFile>& files = found->second;
    std::sort(files.begin(), files.end(), [](const FolderFile& one, const FolderFile& other) {
        return std::pair(one.kind != FileKind::kRaw, one.name) <
               std::pair(other.kind != FileKind::kRaw, other.name);
    });
    std::vector<FolderFile> wanted;
    std::copy_if(files.begin(), files.end(), std::back_inserter(wanted),
                 [&](const FolderFile& file) {
                     return file.kind == FileKind::kRaw ? shot.wantsRaw : shot.wantsOthers;
                 });
    return wanted.empty() ? files : wanted;
}

FileBytes readFile(const std::string& path)
{
    std::ifstream file(fs::u8path(path), std::ios::binary | std::ios::ate);
    const std::streamoff size = file ? static_cast<std::streamoff>(file.tellg()) : -1;
    if (size < 0) {
        return nullptr;
    }
    auto bytes = std::make_shared<std::vector<std::uint8_t>>(static_cast<std::size_t>(size));
    file.seekg(0);
    file.read(reinterpret_cast<char*>(bytes->data()), size);
    return file.gcount() == size ? bytes : nullptr;
}

}  // namespace virtualcamera
