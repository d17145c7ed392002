#include "pe_image.h"

#include <cstring>
#include <fstream>
#include <iterator>

namespace doctor {
namespace {

using Bytes = std::vector<unsigned char>;

template <typename T>
bool readAt(const Bytes& file, size_t offset, T* value) {
    if (offset > file.size() || file.size() - offset < sizeof(T))
        return false;
    std::memcpy(value, file.data() + offset, sizeof(T));
    return true;
}

// The file offset of a relative virtual address, through the section table.
bool fileOffset(const Bytes& file, size_t sections, WORD sectionCount, DWORD rva, size_t* offset) {
    for (WORD i = 0; i < sectionCount; ++i) {
        IMAGE_SECTION_HEADER section;
        if (!readAt(file, sections + i * sizeof section, &section))
            return false;
        DWORD size = section.Misc.VirtualSize ? section.Misc.VirtualSize : section.SizeOfRawData;
        if (rva >= section.VirtualAddress && rva < section.VirtualAddress + size) {
            *offset = rva - section.VirtualAddress + section.PointerToRawData;
            return true;
        }
    }
    return false;
}

std::string textAt(const Bytes& file, size_t offset) {
    std::string text;
    while (offset < file.size() && file[offset] && text.size() < 256)
        text += static_cast<char>(file[offset++]);
    return text;
}

}  // namespace

bool readPeImage(const std::string& path, PeImage* image, std::string* problem) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *problem = "cannot be read";
        return false;
    }
    Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    IMAGE_DOS_HEADER dos;
    DWORD signature = 0;
    IMAGE_FILE_HEADER header;
    if (!readAt(file, 0, &dos) || dos.e_magic != IMAGE_DOS_SIGNATURE ||
        !readAt(file, static_cast<size_t>(dos.e_lfanew), &signature) || signature != IMAGE_NT_SIGNATURE ||
        !readAt(file, dos.e_lfanew + sizeof signature, &header)) {
        *problem = "is not a Windows DLL";
        return false;
    }
    image->machine = header.Machine;
    size_t optional = dos.e_lfanew + sizeof signature + sizeof header;
    size_t sections = optional + header.SizeOfOptionalHeader;
    WORD magic = 0;
    IMAGE_DATA_DIRECTORY exportDirectory{};
    bool ok = readAt(file, optional, &magic);
    if (ok && magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC)
        ok = readAt(file, optional + offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory), &exportDirectory);
    else if (ok && magic == IMAGE_NT_OPTIONAL_HDR32_MAGIC)
        ok = readAt(file, optional + offsetof(IMAGE_OPTIONAL_HEADER32, DataDirectory), &exportDirectory);
    else
        ok = false;
    if (!ok) {
        *problem = "has no readable optional header";
        return false;
    }
    image->exports.clear();
    if (exportDirectory.VirtualAddress == 0)
        return true;
    size_t directoryOffset = 0;
    IMAGE_EXPORT_DIRECTORY exports;
    if (!fileOffset(file, sections, header.NumberOfSections, exportDirectory.VirtualAddress,
                    &directoryOffset) ||
        !readAt(file, directoryOffset, &exports)) {
        *problem = "has an unreadable export table";
        return false;
    }
    size_t names = 0;
    if (exports.NumberOfNames &&
        !fileOffset(file, sections, header.NumberOfSections, exports.AddressOfNames, &names)) {
        *problem = "has an unreadable export table";
        return false;
    }
    for (DWORD i = 0; i < exports.NumberOfNames; ++i) {
        DWORD nameRva = 0;
        size_t nameOffset = 0;
        if (readAt(file, names + i * sizeof nameRva, &nameRva) &&
            fileOffset(file, sections, header.NumberOfSections, nameRva, &nameOffset))
            image->exports.push_back(textAt(file, nameOffset));
    }
    return true;
}

std::string machineName(WORD machine) {
    if (machine == IMAGE_FILE_MACHINE_AMD64)
        return "64-bit (x64)";
    if (machine == IMAGE_FILE_MACHINE_I386)
        return "32-bit (x86)";
    if (machine == IMAGE_FILE_MACHINE_ARM64)
        return "ARM64";
    return "machine " + std::to_string(machine);
}

std::string fileVersionText(const std::string& path) {
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
    if (size == 0)
        return "";
    std::vector<char> data(size);
    if (!GetFileVersionInfoA(path.c_str(), 0, size, data.data()))
        return "";
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    std::string text;
    if (VerQueryValueA(data.data(), "\\", reinterpret_cast<void**>(&fixed), &length) && fixed) {
        text = std::to_string(HIWORD(fixed->dwFileVersionMS)) + "." +
               std::to_string(LOWORD(fixed->dwFileVersionMS)) + "." +
               std::to_string(HIWORD(fixed->dwFileVersionLS)) + "." +
               std::to_string(LOWORD(fixed->dwFileVersionLS));
    }
    struct Translation {
        WORD language;
        WORD codePage;
    }* translation = nullptr;
    if (VerQueryValueA(data.data(), "\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translation),
                       &length) &&
        length >= sizeof *translation) {
        char key[64];
        (void)std::snprintf(key, sizeof key, "\\StringFileInfo\\%04x%04x\\FileDescription",
                            translation->language, translation->codePage);
        char* description = nullptr;
        if (VerQueryValueA(data.data(), key, reinterpret_cast<void**>(&description), &length) &&
            description && *description)
            text += std::string(text.empty() ? "" : " ") + "\"" + description + "\"";
    }
    return text;
}

}  // namespace doctor
