// What the file of a DLL says about itself, read from its bytes: the machine it is built for and
// the names it exports. A 32-bit DLL cannot be loaded into the 64-bit doctor, so its entry points
// are checked this way.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace doctor {

struct PeImage {
    WORD machine = 0;  // IMAGE_FILE_MACHINE_AMD64, IMAGE_FILE_MACHINE_I386, ...
    std::vector<std::string> exports;
};

// False when the file cannot be read or is no PE image; *problem says which.
bool readPeImage(const std::string& path, PeImage* image, std::string* problem);

// "64-bit (x64)", "32-bit (x86)", or the machine number.
std::string machineName(WORD machine);

// The file's version resource as "1.0.0.0", with its description when it has one; "" without one.
std::string fileVersionText(const std::string& path);

}  // namespace doctor
