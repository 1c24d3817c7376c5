#include "nikon/Handles.h"

#include <atomic>

namespace nikon {

MaidReference newHandle()
{
    static std::atomic<std::uintptr_t> last{0};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a number that looks like a reference
    return reinterpret_cast<MaidReference>(++last);
}

}  // namespace nikon
