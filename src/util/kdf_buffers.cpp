#include "util/kdf_buffers.h"

#include <cstring>

namespace {

std::u16string boundedUtf16Text(const unsigned char* bytes, uint32_t size) {
    std::u16string text;
    for (uint32_t i = 0; i + 1 < size; i += 2) {
        char16_t unit = 0;
        std::memcpy(&unit, bytes + i, sizeof unit);
        if (unit == 0)
            break;
        text.push_back(unit);
    }
    return text;
}

}  // namespace

void addKdfBuffer(uint32_t type, const void* value, uint32_t size, KdfValues* values) {
    if (value == nullptr || size == 0)
        return;
    const auto* bytes = static_cast<const unsigned char*>(value);
    switch (type) {
        case kKdfHashAlgorithm:
            values->hashName = boundedUtf16Text(bytes, size);
            break;
        case kKdfAlgorithmId:
            values->algorithmId.insert(values->algorithmId.end(), bytes, bytes + size);
            break;
        case kKdfPartyUInfo:
            values->partyUInfo.insert(values->partyUInfo.end(), bytes, bytes + size);
            break;
        default:
            break;
    }
}
