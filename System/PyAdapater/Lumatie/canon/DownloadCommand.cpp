#include "canon/DownloadCommand.h"

#include "EdSdkCodes.h"
#include "PictureName.h"
#include "TetherTexts.h"
#include "Text.h"
#include "canon/CameraModel.h"
#include "canon/Roomy.h"
#include "platform/Platform.h"

namespace canon {

namespace {

constexpr const char* kVendorWord = "Canon";
constexpr std::uint32_t kCreateAlways = 1;
constexpr std::uint32_t kAccessReadWrite = 2;
constexpr std::uint32_t kProgressPeriodically = 2;

// Makes the file for a picture, and before that notes it as the last one and puts the text by which
// the library opens it over the camera's file name: without memory for that there is no file. The
// path is empty when the host named no folder: the picture can go nowhere then, least of all into
// the root folder.
NewPicture nextPicture(EdsDirectoryItemInfo& info)
{
    const std::string folder = g_szExportFolder.text();
    if (folder.empty()) {
        return {};
    }
    const std::string cameraName = fieldText(info.szFileName, sizeof info.szFileName);
    const auto mayMake = [&info](const std::string& path) {
        g_szLastFile.set(path);
        const std::optional<std::string> said = platform::libraryPath(path);
        boundedCopy(info.szFileName, sizeof info.szFileName, said.value_or(path).c_str(),
                    "the path of a picture is longer than 255 bytes");
        // The library would write a file of another name.
        return said.has_value();
    };
    return newPicture(folder, kVendorWord, pictureExtension(cameraName), mayMake);
}

}  // namespace

DownloadCommand::~DownloadCommand()
{
    if (m_item != nullptr) {
        EdsRelease(m_item);
    }
}

EdsError EDSAPI DownloadCommand::reportProgress(std::uint32_t percent, void* context,
                                                std::int32_t* /*cancel*/)
{
    static_cast<DownloadCommand*>(context)->model().notify("ProgressReport", percent);
    return kOk;
}

bool DownloadCommand::execute()
{
    Roomy<EdsDirectoryItemInfo> record;
    EdsDirectoryItemInfo& info = *record;
    EdsError status = EdsGetDirectoryItemInfo(m_item, record.toFill());
    NewPicture picture = nextPicture(info);
    const bool isMade = picture.file != nullptr;
    picture.file.reset();  // the library opens it itself

    EdsStreamRef stream = nullptr;
    std::optional<EdsError> downloaded;
    if (!picture.path.empty() && status == kOk) {
        status = transfer(info, stream, downloaded);
    }

    // Each release's result, the references that remain, takes the place of what went wrong
    // before it: a picture that could not even be begun is announced like one that was written.
    if (m_item != nullptr) {
        status = EdsRelease(m_item);
        m_item = nullptr;
    }
    if (stream != nullptr) {
        status = EdsRelease(stream);
    }
    if (!downloaded && (isMade || stream != nullptr)) {
        // Empty, the file would look like a picture.
        platform::removeFile(picture.completePath.c_str());
    }
    if (status == kOk) {
        announce(picture, downloaded.value_or(kOk));
    } else {
        model().notify("error", status);
    }
    return true;
}

EdsError DownloadCommand::transfer(const EdsDirectoryItemInfo& info, EdsStreamRef& stream,
                                   std::optional<EdsError>& downloaded)
{
    model().notify("DownloadStart");
    EdsError status =
        EdsCreateFileStream(info.szFileName, kCreateAlways, kAccessReadWrite, &stream);
    if (status == kOk) {
        status = EdsSetProgressCallback(stream, reportProgress, kProgressPeriodically, this);
    }
    if (status == kOk) {
        downloaded = EdsDownload(m_item, info.size, stream);
        status = EdsDownloadComplete(m_item);
    }
    return status;
}

void DownloadCommand::announce(const NewPicture& picture, EdsError downloaded)
{
    if (picture.path.empty()) {
        g_szLastFile.set(kLastFileError);
    } else if (downloaded != kOk) {
        platform::removeFile(picture.completePath.c_str());
        g_szLastFile.set(kLastFileError);
    }
    model().notify("DownloadComplete", kOk);
}

}  // namespace canon
