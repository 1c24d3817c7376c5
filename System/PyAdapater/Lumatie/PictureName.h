// The names of the pictures in the export folder.
#pragma once

#include <functional>
#include <string>

#include "platform/Platform.h"

// Returns the extension of a camera's file name, dot included: everything from the last dot of
// the last path component (".bashrc" is all extension), empty when there is none.
std::string pictureExtension(const std::string& cameraFileName);

// Forms "<folder><separator><vendor>_<seconds since 1970>_<number><extension>". `vendor` is
// "Canon" or "Nikon". The number comes from a generator that is never seeded; one that
// this process has already used for the same text is drawn again, so that a burst cannot
// overwrite itself. Whether the file exists is not looked at. Thread-safe.
std::string newPicturePath(const std::string& folder, const char* vendor,
                           const std::string& extension);

// A path for a picture, and the file that was made there to take the name.
struct NewPicture {
    std::string path;          // as the host's folder has it
    std::string completePath;  // by which the file is found when the host has changed its folder
    platform::File file;       // empty; null when it was not to be made
};

// Draws paths as newPicturePath does until one is free, and takes it by making its file: every
// process draws the same numbers, and several may share a folder. `mayMake` is asked about each
// path before there is a file. When it says no, or the file cannot be made for another reason than
// that the name is in use, there is a path without a file. Thread-safe.
NewPicture newPicture(const std::string& folder, const char* vendor, const std::string& extension,
                      const std::function<bool(const std::string& path)>& mayMake);
