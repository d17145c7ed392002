#include "cert/ca_folder.h"

#include <windows.h>

#include <vector>

const char* const kCaFileExtensions[4] = {".cer", ".der", ".pem", ".crt"};

namespace {

bool pathExists(const char* path) {
    return GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES;
}

std::string environmentValue(const char* name) {
    DWORD needed = GetEnvironmentVariableA(name, nullptr, 0);
    if (needed == 0)
        return std::string();
    std::vector<char> buffer(needed + 1, '\0');
    DWORD got = GetEnvironmentVariableA(name, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (got == 0 || got >= buffer.size())
        return std::string();
    return std::string(buffer.data(), got);
}

}  // namespace

std::string calythInstallationRoot() {
    std::string home = environmentValue("CALYTH_HOME");
    if (!home.empty())
        return home;
    static const char* const kProgramFolders[] = {"C:/Program Files (x86)/Quorvik Labs/Calyth",
                                                  "C:/Program Files/Quorvik Labs/Calyth"};
    for (const char* folder : kProgramFolders) {
        if (pathExists(folder))
            return folder;
    }
    char module[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, module, MAX_PATH);
    std::string path(module, length < MAX_PATH ? length : MAX_PATH);
    size_t cut = path.find_last_of("\\/");
    return cut == std::string::npos ? std::string() : path.substr(0, cut);
}

std::string caCertificateFolder() {
    return calythInstallationRoot() + "\\CalythDSC\\Certificates";
}
