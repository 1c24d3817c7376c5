// The messages of the MAID layer on standard output.
#pragma once

namespace nikon {

// Both return when the text was written, so that lines stay in order with those of other writers;
// but they do not wait for a reader that does not read. Then texts come when it goes on reading,
// and some are lost, as they are without memory. Any thread.
class Console
{
public:
    // Writes the text and a line end, as puts does.
    static void puts(const char* text);

    // Writes formatted text as it is, as printf does.
    static void print(const char* format, ...);

    // For the end of a program: the thread that writes does not end by itself any more. One that
    // was ending when Windows ended the process would leave a lock of MinGW's runtime behind, for
    // which the process would wait for ever.
    static void keepThread();
};

}  // namespace nikon
