// The messages of the MAID layer on standard output.
#pragma once

namespace nikon {

// Both write at once, so that lines stay in order with those of other writers. Any thread.
class Console
{
public:
    // Writes the text and a line end, as puts does.
    static void puts(const char* text);

    // Writes formatted text as it is, as printf does.
    static void print(const char* format, ...);
};

}  // namespace nikon
