// A folder of picture files that cameras deliver in turn as pictures of their own.
//
// Not thread-safe: the owner guards it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/CallLog.h"

namespace virtualcamera {

enum class FileKind : std::uint8_t { kJpeg, kTiff, kRaw };

// The kind that a file's extension stands for, in upper or lower case; nothing for other files.
std::optional<FileKind> kindOfFile(const std::string& name);

// A file that lies in the folder.
struct FolderFile {
    std::string name;
    std::string path;
    FileKind kind = FileKind::kJpeg;
};

// The bytes of a file.
using FileBytes = std::shared_ptr<const std::vector<std::uint8_t>>;

// The same of a path; null when it cannot be read.
FileBytes readFile(const std::string& path);

// Who takes a shot, and what of.
struct FolderShot {
    int camera = 0;
    bool wantsRaw = false;
    bool wantsOthers = false;
};

// Files with the same stem are one shot. Shots come in the order of their stems' bytes, and after
// the last one the first comes again. The folder is looked into at each shot, so files that vanish
// or come meanwhile are left out, or come in their turn. Paths and names are UTF-8.
class PictureFolder
{
public:
    // Takes a folder, for every camera from its first shot on; the empty text for none. Returns
    // why not, and stays as it was then; empty when it was taken.
    std::string use(const std::string& path);

    bool isUsed() const { return !m_path.empty(); }
    const std::string& path() const { return m_path; }

    // The camera's next shot: `take` gets its files one after the other, a raw file first, with
    // what `read` answered for their paths. That is what was asked for of them, or, when there is
    // nothing of that kind, what there is. A folder that has no picture any more, and files that
    // `read` answers null for, are written to the log. While `read` runs, anything may be done to
    // this folder but destroy it.
    using Read = std::function<FileBytes(const std::string& path)>;
    using Take = std::function<void(const FolderFile& file, const FileBytes& bytes)>;
    void deliver(const FolderShot& shot, CallLog& log, const Read& read, const Take& take);

private:
    std::vector<FolderFile> next(const FolderShot& shot);

    std::string m_path;
    std::map<int, std::string> m_last;  // the stem that a camera took last
};

}  // namespace virtualcamera
