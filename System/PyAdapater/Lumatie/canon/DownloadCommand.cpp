#include "canon/DownloadCommand.h"

#include "PictureName.h"
#include "TetherTexts.h"
#include "Text.h"
#include "canon/CameraModel.h"
#include "canon/EdSdkCodes.h"
#include "platform/Platform.h"

namespace canon {

namespace {

constexpr const char* kVendorWord = "Canon";
constexpr std::uint32_t kCreateAlways = 1;
constexpr std::uint32_t kAccessReadWrite = 2;
constexpr std::uint32_t kProgressPeriodically = 2;

// Names the file for a picture and notes it as the last one. Empty when the host named no
// folder: the picture can go nowhere then, least of all into the root folder.
std::string nextPath(const EdsDirectoryItemInfo& info)
{
    const std::string folder = g_szExportFolder.forPictures();
    if (folder.empty()) {
        return {};
    }
    const std::string cameraName = fieldText(info.szFileName, sizeof info.szFileName);
    std::string path = newPicturePath(folder, kVendorWord, pictureExtension(cameraName));
    g_szLastFile.set(path);
    return path;
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
    EdsDirectoryItemInfo info = {};
    EdsError status = EdsGetDirectoryItemInfo(m_item, &info);
    const std::string path = nextPath(info);

    EdsStreamRef stream = nullptr;
    std::optional<EdsError> downloaded;
    if (!path.empty()) {
        boundedCopy(info.szFileName, sizeof info.szFileName, platform::libraryPath(path).c_str(),
                    "the path of a picture is longer than 255 bytes");
        if (status == kOk) {
            status = transfer(info, stream, downloaded);
        }
    }

    // Each release's result, the references that remain, takes the place of what went wrong
    // before it: a picture that could not even be begun is announced like one that was written.
    if (m_item != nullptr) {
        status = EdsRelease(m_item);
        m_item = nullptr;
    }
    if (stream != nullptr) {
        status = EdsRelease(stream);
        if (!downloaded) {
            // The stream has made the file. Empty, it would look like a picture.
            platform::removeFile(path.c_str());
        }
    }
    if (status == kOk) {
        announce(path, downloaded.value_or(kOk));
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

void DownloadCommand::announce(const std::string& path, EdsError downloaded)
{
    if (path.empty()) {
        g_szLastFile.set(kLastFileError);
    } else if (downloaded != kOk) {
        platform::removeFile(path.c_str());
        g_szLastFile.set(kLastFileError);
    }
    model().notify("DownloadComplete", kOk);
}

}  // namespace canon
