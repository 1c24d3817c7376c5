// Writes a new picture into the export folder.
#pragma once

#include <cstdint>
#include <optional>

#include "EdSdk.h"
#include "PictureName.h"
#include "canon/Command.h"

namespace canon {

// Fetches one picture: names a file, has the library write it, and announces "DownloadStart",
// "ProgressReport" and "DownloadComplete". What became of it is then in g_szLastFile: the path,
// or kLastFileError. Never tried again.
class DownloadCommand : public Command
{
public:
    // Takes over `item`, the picture on the camera; it may be null.
    DownloadCommand(CameraModel& model, EdsDirectoryItemRef item) : Command(model), m_item(item) {}

    DownloadCommand(const DownloadCommand&) = delete;
    DownloadCommand& operator=(const DownloadCommand&) = delete;

    // Gives the item back if the command was never executed.
    ~DownloadCommand() override;

    bool execute() override;

private:
    // Called by the library on the worker, inside the download; `context` is the command.
    static EdsError EDSAPI reportProgress(std::uint32_t percent, void* context,
                                          std::int32_t* cancel);

    // `downloaded` stays empty when the download was not even tried.
    EdsError transfer(const EdsDirectoryItemInfo& info, EdsStreamRef& stream,
                      std::optional<EdsError>& downloaded);
    void announce(const NewPicture& picture, EdsError downloaded);

    EdsDirectoryItemRef m_item;
};

}  // namespace canon
