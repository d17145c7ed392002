#include "ksp/kdf_parameters.h"

bool readKdfParameters(const NCryptBufferDesc* list, KdfParameters* parameters) {
    if (list == nullptr || list->cBuffers == 0)
        return true;
    if (list->pBuffers == nullptr)
        return false;
    for (ULONG i = 0; i < list->cBuffers; ++i) {
        const NCryptBuffer& buffer = list->pBuffers[i];
        addKdfBuffer(buffer.BufferType, buffer.pvBuffer, buffer.cbBuffer, parameters);
    }
    return true;
}
