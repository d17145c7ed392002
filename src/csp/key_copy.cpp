#include "csp/key_copy.h"

#include <cstring>

#include "util/bounded_length.h"

void copyLabel(char* destination, size_t limit, const char* source, size_t capacity) {
    size_t length = 0;
    while (length < capacity && length < limit && source[length] != '\0')
        ++length;
    std::memcpy(destination, source, length);
    destination[length] = '\0';
}

void copyKeyPairIntoHandle(const CalythKeyPair& keyPair, KEY_HANDLE* key) {
    std::memcpy(key->keyId, keyPair.keyId, sizeof(key->keyId));
    key->keyIdLength = KEY_ID_LENGTH;

    auto objectIdLength = static_cast<int32_t>(fieldLength(keyPair.objectId, keyPair.objectIdLength));
    std::memcpy(key->objectId, keyPair.objectId, objectIdLength);
    key->objectIdLength = objectIdLength;

    copyLabel(key->label, KEY_LABEL_CHARACTERS, keyPair.label, sizeof(keyPair.label));

    auto publicKeyLength = static_cast<int32_t>(fieldLength(keyPair.publicKey, keyPair.publicKeyLength));
    std::memcpy(key->publicKey, keyPair.publicKey, publicKeyLength);
    key->publicKeyLength = publicKeyLength;
}
