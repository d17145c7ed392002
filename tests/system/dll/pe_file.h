// Reads the headers, export names and imported DLL names of a PE file (64-bit PE32+ or 32-bit
// PE32) from its bytes, without loading it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct PeFile {
    bool valid = false;  // a PE32+ or PE32 image whose tables could be read
    uint16_t machine = 0;
    uint16_t characteristics = 0;
    std::vector<std::string> exports;  // in the order of the export name table
    std::vector<std::string> imports;  // DLL names of the import directory
    // DLL names of the delay-import directory, each with the function names it imports.
    std::vector<std::pair<std::string, std::vector<std::string>>> delayImports;
};

PeFile readPeFile(const std::string& path);

// <folder of this program>\CalythCSP.dll: the build puts every program and DLL in one folder.
std::string providerDllPath();
