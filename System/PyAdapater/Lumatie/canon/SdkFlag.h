// Whether a tether object has ever initialised Canon's library.
#pragma once

#include <atomic>
#include <memory>

namespace canon {

// Set by the first start that succeeds in it, and never cleared; shared by the tether object and
// what outlives it.
using SdkFlag = std::shared_ptr<std::atomic<bool>>;

}  // namespace canon
