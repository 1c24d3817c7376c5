// The Windows API, without its macros min and max and without what is rarely used.
#pragma once

#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX  // MinGW's C++ library may have it
#define NOMINMAX
#endif
#include <windows.h>
