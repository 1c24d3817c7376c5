#include "PictureName.h"

#include <ctime>
#include <mutex>

#include "OfProcess.h"
#include "RecentNames.h"

namespace {

struct NamesInUse {
    std::mutex lock;  // guards the names
    RecentNames recent;
};

}  // namespace

std::string pictureExtension(const std::string& cameraFileName)
{
    const std::size_t separator = cameraFileName.find_last_of("/\\");
    const std::size_t dot = cameraFileName.find_last_of('.');
    const bool inLastComponent =
        dot != std::string::npos && (separator == std::string::npos || dot > separator);
    return inLastComponent ? cameraFileName.substr(dot) : std::string();
}

std::string newPicturePath(const std::string& folder, const char* vendor,
                           const std::string& extension)
{
    auto& names = ofThisProcess<NamesInUse>();
    const std::lock_guard<std::mutex> guard(names.lock);
    std::time_t now = 0;
    std::string path;
    do {
        // Windows has 32768 numbers: the next second may have to give a free name.
        now = std::time(nullptr);
        path = folder + platform::kPathSeparator + vendor + '_' + std::to_string(now) + '_';
        path += std::to_string(platform::randomNumber()) + extension;
    } while (!names.recent.add(now, path));
    return path;
}

NewPicture newPicture(const std::string& folder, const char* vendor, const std::string& extension,
                      const std::function<bool(const std::string& path)>& mayMake)
{
    NewPicture picture;
    bool isTaken = false;
    do {
        picture.path = newPicturePath(folder, vendor, extension);
        picture.completePath = platform::completePath(picture.path);
        if (!mayMake(picture.path)) {
            break;
        }
        picture.file = platform::createFile(picture.completePath.c_str(), isTaken);
    } while (isTaken);
    return picture;
}
