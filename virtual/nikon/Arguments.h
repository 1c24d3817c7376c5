// What the entry point is called with.
#pragma once

#include <cstdint>

#include "Maid.h"

namespace virtualnikon {

struct Arguments {
    MaidObject* record = nullptr;
    std::uint32_t command = 0;
    std::uint32_t parameter = 0;
    std::uint32_t dataType = 0;
    MaidData data = 0;
    MaidCompletionProcedure procedure = nullptr;
    MaidReference reference = nullptr;
};

}  // namespace virtualnikon
