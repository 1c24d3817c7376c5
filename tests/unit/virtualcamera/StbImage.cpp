// The one place where the JPEG decoder's code is compiled.
#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_STDIO
#include <stb_image.h>
