// Runs a fuzz target without the fuzzer: once for each file that is named. For compilers that have
// no fuzzer, and for debuggers.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "Input.h"

int main(int count, char** names)
{
    for (int i = 1; i < count; ++i) {
        std::ifstream file(names[i], std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "%s cannot be read\n", names[i]);
            return 1;
        }
        std::ostringstream content;
        content << file.rdbuf();
        const std::string bytes = content.str();
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "%d inputs\n", count - 1);
    return 0;
}
