#include "ksp/kdf_parameters.h"

#include <cwchar>

namespace {

// The hash name is wide text; it ends at its NUL or at the end of the buffer, whichever comes
// first (an odd last byte is not part of a character).
std::wstring boundedWideText(const void* value, ULONG size) {
    const auto* text = static_cast<const wchar_t*>(value);
    size_t characters = wcsnlen(text, size / sizeof(wchar_t));
    return std::wstring(text, characters);
}

void appendBytes(std::vector<unsigned char>* to, const void* value, ULONG size) {
    const auto* bytes = static_cast<const unsigned char*>(value);
    to->insert(to->end(), bytes, bytes + size);
}

}  // namespace

bool readKdfParameters(const NCryptBufferDesc* list, KdfParameters* parameters) {
    if (list == nullptr || list->cBuffers == 0)
        return true;
    if (list->pBuffers == nullptr)
        return false;
    for (ULONG i = 0; i < list->cBuffers; ++i) {
        const NCryptBuffer& buffer = list->pBuffers[i];
        if (buffer.pvBuffer == nullptr || buffer.cbBuffer == 0)
            continue;
        switch (buffer.BufferType) {
            case KSP_KDF_HASH_ALGORITHM:
                parameters->hashName = boundedWideText(buffer.pvBuffer, buffer.cbBuffer);
                break;
            case KSP_KDF_ALGORITHMID:
                appendBytes(&parameters->algorithmId, buffer.pvBuffer, buffer.cbBuffer);
                break;
            case KSP_KDF_PARTYUINFO:
                appendBytes(&parameters->partyUInfo, buffer.pvBuffer, buffer.cbBuffer);
                break;
            default:
                break;
        }
    }
    return true;
}
