#include "PictureName.h"

#include <ctime>
#include <deque>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "platform/Platform.h"

namespace {

// The names given out: all of the current second, and the last thousands of earlier ones, which
// only a clock that is set back can bring up again.
class RecentNames
{
public:
    // Notes a name of the second `now`; returns false when it was given out before.
    bool add(std::time_t now, const std::string& name)
    {
        if (!m_names.insert(name).second) {
            return false;
        }
        m_order.emplace_back(now, name);
        while (m_order.size() > kKept && m_order.front().first != now) {
            m_names.erase(m_order.front().second);
            m_order.pop_front();
        }
        return true;
    }

private:
    static constexpr std::size_t kKept = 4096;
    std::unordered_set<std::string> m_names;
    std::deque<std::pair<std::time_t, std::string>> m_order;  // oldest first
};

std::mutex g_namesLock;  // guards the names
RecentNames g_recentNames;

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
    const std::lock_guard<std::mutex> guard(g_namesLock);
    std::time_t now = 0;
    std::string path;
    do {
        // Windows has 32768 numbers: the next second may have to give a free name.
        now = std::time(nullptr);
        path = folder + platform::kPathSeparator + vendor + '_' + std::to_string(now) + '_';
        path += std::to_string(platform::randomNumber()) + extension;
    } while (!g_recentNames.add(now, path));
    return path;
}
