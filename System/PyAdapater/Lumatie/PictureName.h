// The names of the pictures in the export folder.
#pragma once

#include <string>

// Returns the extension of a camera's file name, dot included: everything from the last dot of
// the last path component (".bashrc" is all extension), empty when there is none.
std::string pictureExtension(const std::string& cameraFileName);

// Forms "<folder><separator><vendor>_<seconds since 1970>_<number><extension>". `vendor` is
// "Canon" or "Nikon". The number comes from a generator that is never seeded; one that
// this process has already used for the same text is drawn again, so that a burst cannot
// overwrite itself. Files of earlier runs are not looked at. Thread-safe.
std::string newPicturePath(const std::string& folder, const char* vendor,
                           const std::string& extension);
