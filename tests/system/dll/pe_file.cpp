#include "pe_file.h"

#include <windows.h>

#include <cstddef>
#include <cstring>

#include "support/test_support.h"

namespace {

class Image {
public:
    explicit Image(std::vector<unsigned char> bytes) : bytes_(std::move(bytes)) {}

    template <typename T>
    bool read(size_t offset, T* out) const {
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof(T))
            return false;
        std::memcpy(out, bytes_.data() + offset, sizeof(T));
        return true;
    }

    std::string text(size_t offset) const {
        std::string out;
        while (offset < bytes_.size() && bytes_[offset] != 0)
            out.push_back(static_cast<char>(bytes_[offset++]));
        return out;
    }

    void setSections(size_t offset, int count) {
        for (int i = 0; i < count; ++i) {
            IMAGE_SECTION_HEADER section;
            if (read(offset + i * sizeof section, &section))
                sections_.push_back(section);
        }
    }

    // File offset of a relative virtual address, or 0 when no section holds it.
    size_t offsetOf(uint32_t rva) const {
        for (const IMAGE_SECTION_HEADER& s : sections_) {
            uint32_t size = s.Misc.VirtualSize > s.SizeOfRawData ? s.Misc.VirtualSize : s.SizeOfRawData;
            if (rva >= s.VirtualAddress && rva < s.VirtualAddress + size)
                return rva - s.VirtualAddress + s.PointerToRawData;
        }
        return 0;
    }

private:
    std::vector<unsigned char> bytes_;
    std::vector<IMAGE_SECTION_HEADER> sections_;
};

}  // namespace

PeFile readPeFile(const std::string& path) {
    PeFile pe;
    Image image(testsupport::readFile(path));
    IMAGE_DOS_HEADER dos;
    if (!image.read(0, &dos) || dos.e_magic != IMAGE_DOS_SIGNATURE)
        return pe;
    // PE32+ (64-bit) and PE32 (32-bit) differ in the optional header, where the tables are listed.
    IMAGE_NT_HEADERS64 nt64;
    IMAGE_NT_HEADERS32 nt32;
    const IMAGE_FILE_HEADER* fileHeader = nullptr;
    const IMAGE_DATA_DIRECTORY* directories = nullptr;
    if (image.read(dos.e_lfanew, &nt64) && nt64.Signature == IMAGE_NT_SIGNATURE &&
        nt64.OptionalHeader.Magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
        fileHeader = &nt64.FileHeader;
        directories = nt64.OptionalHeader.DataDirectory;
    } else if (image.read(dos.e_lfanew, &nt32) && nt32.Signature == IMAGE_NT_SIGNATURE &&
               nt32.OptionalHeader.Magic == IMAGE_NT_OPTIONAL_HDR32_MAGIC) {
        fileHeader = &nt32.FileHeader;
        directories = nt32.OptionalHeader.DataDirectory;
    } else {
        return pe;
    }
    pe.machine = fileHeader->Machine;
    pe.characteristics = fileHeader->Characteristics;
    image.setSections(
        dos.e_lfanew + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) + fileHeader->SizeOfOptionalHeader,
        fileHeader->NumberOfSections);

    const IMAGE_DATA_DIRECTORY& exportDir = directories[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (exportDir.VirtualAddress != 0) {
        IMAGE_EXPORT_DIRECTORY exports;
        if (!image.read(image.offsetOf(exportDir.VirtualAddress), &exports))
            return pe;
        size_t names = image.offsetOf(exports.AddressOfNames);
        for (DWORD i = 0; i < exports.NumberOfNames; ++i) {
            uint32_t nameRva = 0;
            if (!image.read(names + i * 4, &nameRva))
                return pe;
            pe.exports.push_back(image.text(image.offsetOf(nameRva)));
        }
    }

    const IMAGE_DATA_DIRECTORY& importDir = directories[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (importDir.VirtualAddress != 0) {
        size_t at = image.offsetOf(importDir.VirtualAddress);
        for (;; at += sizeof(IMAGE_IMPORT_DESCRIPTOR)) {
            IMAGE_IMPORT_DESCRIPTOR descriptor;
            if (!image.read(at, &descriptor))
                return pe;
            if (descriptor.Name == 0)
                break;
            pe.imports.push_back(image.text(image.offsetOf(descriptor.Name)));
        }
    }
    // Delay-import descriptors (ImgDelayDescr, 32 bytes): attributes, then the RVAs of the DLL
    // name, its module handle, its address table and its name table. The directory's size bounds
    // them (GNU ld puts no empty descriptor after the last).
    const IMAGE_DATA_DIRECTORY& delayDir = directories[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT];
    // A name table entry is as wide as a pointer of the image.
    const size_t thunkSize = fileHeader == &nt64.FileHeader ? sizeof(uint64_t) : sizeof(uint32_t);
    if (delayDir.VirtualAddress != 0) {
        size_t at = image.offsetOf(delayDir.VirtualAddress);
        for (size_t end = at + delayDir.Size; at + 8 * sizeof(uint32_t) <= end; at += 8 * sizeof(uint32_t)) {
            uint32_t descriptor[8];
            if (!image.read(at, &descriptor))
                return pe;
            if (descriptor[1] == 0)
                break;
            std::vector<std::string> functions;
            for (size_t thunk = image.offsetOf(descriptor[4]);; thunk += thunkSize) {
                uint64_t entry = 0;
                uint32_t entry32 = 0;
                if (thunkSize == sizeof(uint64_t) ? !image.read(thunk, &entry) : !image.read(thunk, &entry32))
                    return pe;
                if (thunkSize == sizeof(uint32_t))
                    entry = entry32;
                if (entry == 0)
                    break;
                // IMAGE_IMPORT_BY_NAME: a 16-bit hint, then the name.
                functions.push_back(image.text(image.offsetOf(static_cast<uint32_t>(entry)) + 2));
            }
            pe.delayImports.emplace_back(image.text(image.offsetOf(descriptor[1])), functions);
        }
    }
    pe.valid = true;
    return pe;
}

std::string providerDllPath() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, sizeof path);
    std::string s = path;
    return s.substr(0, s.find_last_of('\\') + 1) + "CalythCSP.dll";
}
