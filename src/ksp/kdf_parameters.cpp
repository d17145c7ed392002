#include "ksp/kdf_parameters.h"

#include <utility>

static_assert(sizeof(wchar_t) == sizeof(char16_t), "hash names are UTF-16 on Windows");

bool readKdfParameters(const NCryptBufferDesc* list, KdfParameters* parameters) {
    if (list == nullptr || list->cBuffers == 0)
        return true;
    if (list->pBuffers == nullptr)
        return false;
    KdfValues values;
    values.hashName.assign(parameters->hashName.begin(), parameters->hashName.end());
    values.algorithmId = std::move(parameters->algorithmId);
    values.partyUInfo = std::move(parameters->partyUInfo);
    for (ULONG i = 0; i < list->cBuffers; ++i) {
        const NCryptBuffer& buffer = list->pBuffers[i];
        addKdfBuffer(buffer.BufferType, buffer.pvBuffer, buffer.cbBuffer, &values);
    }
    parameters->hashName.assign(values.hashName.begin(), values.hashName.end());
    parameters->algorithmId = std::move(values.algorithmId);
    parameters->partyUInfo = std::move(values.partyUInfo);
    return true;
}
