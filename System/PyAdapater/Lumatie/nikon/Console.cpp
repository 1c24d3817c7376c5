#include "nikon/Console.h"

#include <cstdarg>
#include <cstdio>

namespace nikon {

void Console::puts(const char* text)
{
    std::puts(text);
    std::fflush(stdout);
}

void Console::print(const char* format, ...)
{
    va_list values;
    va_start(values, format);
    std::vprintf(format, values);
    va_end(values);
    std::fflush(stdout);
}

}  // namespace nikon
