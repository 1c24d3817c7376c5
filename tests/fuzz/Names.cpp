// Fuzzes what has to do with file names: their extensions, the names of pictures, and the copies
// into texts of a fixed size, up to a whole download from a Canon camera. A text that does not fit
// would end the process; here it ends the input, and has to be one that does not fit.
#include <algorithm>
#include <memory>
#include <string>

#include "FakeEds.h"
#include "Input.h"
#include "PictureName.h"
#include "Seams.h"
#include "TetherTexts.h"
#include "Text.h"
#include "canon/CameraModel.h"
#include "canon/DownloadCommand.h"
#include "canon/Observer.h"

namespace {

using fuzz::check;
using fuzz::Input;

// Runs `action`; returns whether it was rejected.
template <typename Action>
bool isRejected(Action action)
{
    try {
        action();
    } catch (const fuzz::Rejected&) {
        return true;
    }
    return false;
}

// From the last dot on, unless a separator follows; counted from the end.
std::string extensionOf(const std::string& name)
{
    for (std::size_t at = name.size(); at > 0; --at) {
        if (name[at - 1] == '.') {
            return name.substr(at - 1);
        }
        if (name[at - 1] == '/' || name[at - 1] == '\\') {
            break;
        }
    }
    return {};
}

void checkPath(const std::string& path, const std::string& start, const std::string& extension)
{
    check(path.size() >= start.size() + extension.size() + 3, "a picture's name is there");
    check(path.compare(0, start.size(), start) == 0, "a picture's name starts with its folder");
    check(path.compare(path.size() - extension.size(), extension.size(), extension) == 0,
          "a picture's name ends with its extension");
    const std::string numbers =
        path.substr(start.size(), path.size() - start.size() - extension.size());
    const std::size_t gap = numbers.find('_');
    check(gap != std::string::npos && gap > 0 && gap + 1 < numbers.size() &&
              numbers.find_first_not_of("0123456789_") == std::string::npos &&
              numbers.find('_', gap + 1) == std::string::npos,
          "a picture's name holds two numbers");
}

void fuzzNames(Input& input)
{
    const std::string folder = input.text(input.byte());
    const std::string name = input.text(input.byte());
    const std::string extension = pictureExtension(name);
    check(extension == extensionOf(name), "an extension is the name's end");
    const std::string path = newPicturePath(folder, "Canon", extension);
    checkPath(path, folder + "/Canon_", extension);
    check(newPicturePath(folder, "Canon", extension) != path, "every name is new");
}

void fuzzCopies(Input& input)
{
    const std::size_t size = input.byte() + std::size_t{1};
    const std::string source = input.text(input.number<std::uint16_t>() % 300U);
    const std::string text = source.c_str();
    const auto target = std::make_unique<char[]>(size);
    std::fill_n(target.get(), size, '\x5A');
    const bool rejected = isRejected([&] { boundedCopy(target.get(), size, text.c_str(), "it"); });
    check(rejected == (text.size() >= size), "a text is rejected when it does not fit");
    const std::size_t written = rejected ? 0 : text.size() + 1;
    check(rejected || text == target.get(), "a text is copied as it is");
    check(std::all_of(target.get() + written, target.get() + size,
                      [](char letter) { return letter == '\x5A'; }),
          "nothing else is written");
    check(isRejected([&] { boundedCopy(target.get(), size, nullptr, "it"); }),
          "a missing text is rejected");

    // A field, with a terminator or without, that ends where its memory does.
    const auto field = std::make_unique<char[]>(std::max<std::size_t>(source.size(), 1));
    std::copy(source.begin(), source.end(), field.get());
    check(fieldText(field.get(), source.size()) == text, "a field's text ends at its terminator");
    std::string other = source;
    const std::string changes = input.text(other.size());
    for (std::size_t i = 0; i < changes.size(); ++i) {
        other[i] = static_cast<char>(other[i] ^ (changes[i] & 0x20));
    }
    const bool isEqual = equalIgnoringCase(source, other);
    check(isEqual == equalIgnoringCase(other, source), "comparing knows no sides");
    bool expected = true;
    for (std::size_t i = 0; i < source.size(); ++i) {
        const char lower = static_cast<char>(source[i] | 0x20);
        expected = expected && (source[i] == other[i] || (lower >= 'a' && lower <= 'z'));
    }
    check(isEqual == expected, "only letters have a case");
}

void fuzzTexts(Input& input)
{
    const std::string before = "/before";
    const std::string text = std::string(input.byte(), 'x') + input.text(40).c_str();
    ExportFolder folder;
    folder.set(before.c_str());
    const bool rejected = isRejected([&] { folder.set(text.c_str()); });
    check(rejected == (text.size() >= kExportFolderSize), "a folder of 256 bytes is rejected");
    check(folder.text() == (rejected ? before : text), "a rejected folder changes nothing");

    LastFile file;
    file.set(before);
    const bool fileRejected = isRejected([&] { file.set(text); });
    check(fileRejected == (text.size() >= kLastFileSize), "a path of 260 bytes is rejected");
    check(file.take() == (fileRejected ? before : text), "the last file is kept");
}

struct Announcements final : canon::Observer {
    void update(canon::Observable* /*from*/, const canon::CameraEvent& event) override
    {
        names += event.name + ' ';
    }
    std::string names;
};

void fuzzDownload(Input& input)
{
    fuzz::FakeEds& eds = fuzz::fakeEds();
    eds = {};
    const std::uint32_t shape = input.byte();
    eds.itemResult = (shape & 7U) == 7U ? 0x81 : 0;
    eds.result = (shape & 0x38U) == 0x38U ? 0x22 : 0;
    eds.downloadResult = (shape & 0x40U) != 0 ? 0x24 : 0;
    eds.references = (shape & 0x80U) != 0 ? 1 : 0;
    const std::string folder = (shape & 1U) != 0 ? std::string(input.byte(), 'f')
                                                 : "/none/" + input.text(input.byte() / 4);
    eds.item.size = input.number<std::uint64_t>();
    const std::vector<unsigned char> name = input.rest();
    std::copy_n(name.begin(), std::min(name.size(), sizeof eds.item.szFileName),
                eds.item.szFileName);
    const std::string cameraName = fieldText(eds.item.szFileName, sizeof eds.item.szFileName);
    const std::string extension = extensionOf(cameraName);
    g_szExportFolder.set(folder.c_str());
    const std::string used = g_szExportFolder.text();

    canon::CameraModel model(fuzz::FakeEds::object());
    Announcements announcements;
    model.addObserver(&announcements);
    canon::DownloadCommand command(model, fuzz::FakeEds::object());
    bool done = false;
    if (isRejected([&] { done = command.execute(); })) {
        // Separator, "Canon_", ten digits, "_", at most ten digits.
        check(used.size() + extension.size() + 28 >= kEdsMaxName, "only long paths are rejected");
        g_szLastFile.take();
        return;
    }
    check(done, "a download is never tried again");
    const std::string last = g_szLastFile.take();
    if (!eds.streamPath.empty()) {
        check(eds.streamPath.size() < kEdsMaxName, "the library's path fits");
        checkPath(eds.streamPath, used + "/Canon_", extension);
        check(last == eds.streamPath || last == kLastFileError, "the last file is this one");
        check(eds.downloadSize == eds.item.size || eds.result != 0,
              "the whole picture is asked for");
    }
    const std::string& names = announcements.names;
    check(names.find("DownloadComplete ") != std::string::npos ||
              names.find("error ") != std::string::npos,
          "every download is announced");
    check(eds.releases == (eds.streamPath.empty() ? 1 : 2), "everything is given back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    switch (input.below(4)) {
        case 0:
            fuzzNames(input);
            break;
        case 1:
            fuzzCopies(input);
            break;
        case 2:
            fuzzTexts(input);
            break;
        default:
            fuzzDownload(input);
    }
    return 0;
}
