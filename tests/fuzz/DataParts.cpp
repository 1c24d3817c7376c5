// Fuzzes the parts of pictures that a driver module delivers: sizes that add up and such that do
// not. What comes whole has to be in its file, and nothing else may be in the folder.
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "Input.h"
#include "Scratch.h"
#include "Seams.h"
#include "TetherTexts.h"
#include "nikon/DataReceiver.h"

// More memory than this is not to be had, as on a machine that has none. Without the sanitizer
// there would be some: such a part ends the input then.
#ifdef LUMATIE_MEMORY_IS_LIMITED
constexpr bool kMemoryIsLimited = true;
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}
#else
constexpr bool kMemoryIsLimited = false;
#endif

namespace {

namespace fs = std::filesystem;
using fuzz::check;
using fuzz::Input;

constexpr std::uint64_t kMostMemory = std::uint64_t{64} << 20U;
constexpr std::size_t kMostParts = 24;

// A part as the module describes it, and its bytes.
struct Part {
    bool isFile = false;
    std::uint32_t kind = 0;
    std::uint32_t fileType = 0;
    std::uint64_t total = 0;
    std::uint64_t length = 0;
    bool removes = false;
    bool hasData = true;
    MaidFileInfo file = {};
    MaidImageInfo image = {};
    std::vector<unsigned char> bytes;

    const void* info() const
    {
        return isFile ? static_cast<const void*>(&file) : static_cast<const void*>(&image);
    }
};

// What the module should have of the picture under way.
struct Picture {
    bool isFile = false;
    std::uint64_t total = 0;
    std::vector<unsigned char> bytes;
};

const char* extensionOf(const Part& part)
{
    if (!part.isFile) {
        return ".raw";
    }
    switch (part.fileType) {
        case 1:
            return ".jpg";
        case 2:
            return ".tif";
        case 4:
            return ".nef";
        case 257:
            return ".ndf";
        default:
            return ".dat";
    }
}

std::uint32_t takeSize(Input& input, std::uint32_t fitting)
{
    const std::uint32_t choice = input.below(16);
    if (choice < 10) {
        return fitting;
    }
    if (choice < 14) {
        return input.byte();
    }
    // Rarely so much that the file is written in two steps.
    return choice == 14 ? (std::uint32_t{1} << 20U) + input.byte() - 16
                        : input.number<std::uint32_t>();
}

// Sizes between two writes of a file and what is refused would only make it slow.
bool isSlow(std::uint64_t size)
{
    return size > kMostMemory / 32 && size <= kMostMemory;
}

void describe(Part& part, Input& input, const std::optional<Picture>& picture)
{
    constexpr std::uint32_t fileTypes[] = {1, 2, 4, 257, 3};
    const auto total = static_cast<std::uint32_t>(picture ? picture->total : input.byte());
    const auto left =
        static_cast<std::uint32_t>(picture ? picture->total - picture->bytes.size() : total);
    part.fileType = input.oneOf(fileTypes);
    part.removes = input.flag();
    if (part.isFile) {
        part.file.kind = part.kind;
        part.file.fileType = part.fileType;
        part.file.totalLength = takeSize(input, total);
        part.file.length = takeSize(input, input.flag() ? left : left / 2);
        part.file.removeObject = part.removes ? 3 : 0;
        if (isSlow(part.file.totalLength)) {
            part.file.totalLength %= 256;
        }
        part.total = part.file.totalLength;
        part.length = part.file.length;
        return;
    }
    // With rows of 1, 2, 4 ... bytes.
    const std::uint32_t rowBytes = input.flag() ? 1U << input.below(12) : takeSize(input, 3);
    const std::uint32_t divisor = std::max(rowBytes, 1U);
    part.image.kind = part.kind;
    part.image.rowBytes = rowBytes;
    part.image.totalRows = takeSize(input, total / divisor);
    part.image.rows = takeSize(input, left / divisor);
    if (isSlow(std::uint64_t{part.image.totalRows} * rowBytes)) {
        part.image.totalRows %= 64;
        part.image.rowBytes %= 64;
    }
    part.image.removeObject = part.removes ? 1 : 0;
    part.total = std::uint64_t{part.image.totalRows} * part.image.rowBytes;
    part.length = std::uint64_t{part.image.rows} * part.image.rowBytes;
}

Part takePart(Input& input, const std::optional<Picture>& picture)
{
    Part part;
    const std::uint32_t shape = input.byte();
    const bool isFile = picture ? picture->isFile : (shape & 1U) != 0;
    part.isFile = isFile != ((shape & 0x70U) == 0x70U);
    part.hasData = (shape & 0x0EU) != 0x0EU;
    part.kind = (part.isFile ? kMaidDataFile : 0U) | ((shape & 0x80U) != 0 ? 0U : kMaidDataImage);
    describe(part, input, picture);
    // No more bytes than announced lie behind the address. What is refused needs none.
    const std::uint64_t room =
        picture ? picture->total - picture->bytes.size() : std::min(part.total, kMostMemory);
    if (part.hasData && part.length <= room) {
        part.bytes =
            input.bytes(static_cast<std::size_t>(std::min<std::uint64_t>(part.length, 64)));
        part.bytes.resize(static_cast<std::size_t>(part.length), shape & 0xFFU);
        part.bytes.shrink_to_fit();
    }
    if (part.bytes.empty()) {
        part.bytes.reserve(1);  // an address all the same
    }
    return part;
}

std::string contentOf(const std::string& path)
{
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// One acquisition, and what should become of it.
class Run
{
public:
    Run(const fuzz::Scratch& scratch, Input& input) : m_scratch(scratch), m_input(input)
    {
        m_handle = nikon::receivers().add(m_receiver);
        chooseFolder();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
    ~Run() { nikon::receivers().remove(m_handle); }

    void deliverAll()
    {
        for (std::size_t count = 0; count < kMostParts && !m_input.empty(); ++count) {
            if (m_input.below(16) == 15) {
                chooseFolder();
            }
            const Part part = takePart(m_input, m_picture);
            const bool isPossible = kMemoryIsLimited || part.total <= kMostMemory;
            if (!isPossible || !deliver(part)) {
                break;
            }
        }
        check(m_receiver->results() == m_results, "every whole picture has its result");
        check(m_receiver->mayRemoveItem() == m_mayRemove, "the item may be removed or not");
        check(m_scratch.isEmpty(), "nothing else is in the folder");
    }

private:
    void chooseFolder()
    {
        const std::uint32_t choice = m_input.below(16);
        m_folder = choice == 0   ? std::string()
                   : choice == 1 ? m_scratch.path() + "/none"
                                 : m_scratch.path();
        if (choice == 2) {
            while (m_folder.size() < 200U + m_input.left() % 54) {
                m_folder += "/.";
            }
        }
        g_szExportFolder.set(m_folder.c_str());
    }

    // Returns false when the process would have ended.
    bool deliver(const Part& part)
    {
        const std::size_t before = m_receiver->results().size();
        MaidResult result = kMaidOk;
        try {
            result = nikon::receiveData(m_handle, part.info(),
                                        part.hasData ? part.bytes.data() : nullptr);
        } catch (const fuzz::Rejected&) {
            // Folder, separator, "Nikon_", ten digits, "_", at most ten digits, the extension.
            check(m_folder.size() + 32 >= kLastFileSize,
                  "only a path that is too long is rejected");
            return false;
        }
        check(result == expect(part), "the module is told the right thing");
        const std::vector<std::string> results = m_receiver->results();
        check(results.size() == m_results.size(), "a whole picture has a result, a part has none");
        if (results.size() > before) {
            checkResult(part, results.back());
            if (result == kMaidOk) {
                m_picture = std::nullopt;
            }
        }
        return true;
    }

    // What `receiveData` should answer.
    MaidResult expect(const Part& part)
    {
        if (!m_picture) {
            if (part.total > kMostMemory) {
                return kMaidOutOfMemory;
            }
            m_picture = Picture{part.isFile, part.total, {}};
        }
        if (part.total != m_picture->total || part.isFile != m_picture->isFile ||
            (!part.hasData && part.length > 0)) {
            return kMaidFileFailed;
        }
        if (part.length > m_picture->total - m_picture->bytes.size()) {
            return kMaidOutOfMemory;
        }
        const std::size_t had = m_picture->bytes.size();
        m_picture->bytes.insert(m_picture->bytes.end(), part.bytes.begin(), part.bytes.end());
        if (m_picture->bytes.size() < m_picture->total) {
            return kMaidOk;
        }
        if (!fs::is_directory(m_folder)) {
            m_picture->bytes.resize(had);
            if (m_folder.empty()) {
                m_results.emplace_back(kLastFileError);
            }
            return kMaidFileFailed;
        }
        const bool isWritten = m_picture->total > 0 || !part.isFile;
        m_results.emplace_back(isWritten ? m_folder : kLastFileError);
        m_mayRemove =
            m_mayRemove || (isWritten && part.removes && (part.kind & kMaidDataImage) != 0);
        return kMaidOk;
    }

    void checkResult(const Part& part, const std::string& result)
    {
        check(g_szLastFile.take() == result, "the last file is this one");
        std::string& expected = m_results.back();
        if (expected != kLastFileError) {
            check(result.compare(0, expected.size() + 7, expected + "/Nikon_") == 0 &&
                      fs::path(result).extension() == extensionOf(part),
                  "a picture's name");
            const std::string content = contentOf(result);
            check(content == std::string(m_picture->bytes.begin(), m_picture->bytes.end()),
                  "a file holds what was delivered");
            check(fs::remove(result), "the file is there");
            expected = result;
        }
        check(result == expected, "the picture's result");
    }

    const fuzz::Scratch& m_scratch;
    Input& m_input;
    const std::shared_ptr<nikon::DataReceiver> m_receiver =
        std::make_shared<nikon::DataReceiver>(1, std::make_shared<nikon::ModuleHeartbeat>());
    MaidReference m_handle = nullptr;
    std::string m_folder;
    std::optional<Picture> m_picture;
    std::vector<std::string> m_results;  // for a file that is not there yet: its folder
    bool m_mayRemove = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::Scratch scratch;
    Input input(data, size);
    Run(scratch, input).deliverAll();
    return 0;
}
