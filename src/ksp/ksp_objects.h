// The records behind the CNG handles: the provider object (NCRYPT_PROV_HANDLE), the key object
// (NCRYPT_KEY_HANDLE), the enumeration state of KSPEnumKeys and the secret object
// (NCRYPT_SECRET_HANDLE). Each handle is the record's address. The provider keeps no private key
// material: a key object holds the public data the token listed for the key, or the AES bytes of a
// key imported from an encrypted transport blob.
//
// The provider, key and secret records are allocated with `new (std::nothrow) T{}` (all fields zero
// or empty) and released with `delete` by their free operation (KSPFreeProvider, KSPFreeKey,
// KSPFreeSecret); the enumeration state is a malloc'ed block (see KspEnumState).
#pragma once

#include <windows.h>

#include <ncrypt.h>

#include <cstdint>
#include <string>
#include <vector>

#include "token/device_library.h"
#include "token/key_id.h"

// The largest public key the provider's sizes name is an RSA-4096 key as a DER SubjectPublicKeyInfo
// (550 bytes with a 3-byte exponent); the room leaves some over for a longer exponent.
constexpr size_t KSP_PUBLIC_KEY_ROOM = 600;
constexpr size_t KSP_LINK_ID_ROOM = 128;
constexpr size_t KSP_LABEL_CHARACTERS = 128;
constexpr size_t KSP_SYMMETRIC_ROOM = 32;
constexpr size_t KSP_SECRET_ROOM = 66;  // a P-521 coordinate

constexpr uint32_t KSP_CHAINING_CBC = 0;
constexpr uint32_t KSP_CHAINING_ECB = 1;

struct KspProvider {
    std::string serial;             // token worked on; empty when opened without a token
    void* deviceContext = nullptr;  // last argument of every device call; always null
    uint8_t initialized = 0;        // 1 once KSPOpenProvider succeeded
    HWND window = nullptr;          // "HWND Handle" property
    std::string firmware;           // the token's firmware version text, read at open
};

struct KspKey {
    unsigned char keyId[KEY_ID_LENGTH] = {};
    uint32_t keyIdLength = 0;  // 16 once the key exists on the token
    int32_t algorithm = 0;     // 1-4 RSA-1024..4096, 5-7 P-256/384/521; 0 RSA not yet finalised
    int32_t usage = 0;         // 1 signature, 2 key exchange, 3 both
    unsigned char publicKey[KSP_PUBLIC_KEY_ROOM] = {};
    uint32_t publicKeyLength = 0;
    unsigned char linkId[KSP_LINK_ID_ROOM] = {};  // shared by the key pair and its certificate
    uint32_t linkIdLength = 0;
    char label[KSP_LABEL_CHARACTERS + 1] = {};
    uint32_t reserved = 0;
    uint32_t bits = 0;      // 1024 ... 4096, 256, 384, 521
    uint8_t tokenFlag = 0;  // handed back to calyth_deleteKeyPair and calyth_decrypt
    std::wstring name;      // as opened or created
    uint8_t finalized = 0;  // 0 after KSPCreatePersistedKey, 1 once the key exists
    unsigned char symmetricKey[KSP_SYMMETRIC_ROOM] = {};
    uint32_t symmetricKeyLength = 0;  // non-zero: an AES key held in the object
    uint32_t chainingMode = KSP_CHAINING_CBC;
};

// The ppEnumState of KSPEnumKeys. The router releases it through KSPFreeBuffer, which calls free,
// so it is one malloc'ed block: this header followed, at KSP_ENUM_KEY_PAIRS_OFFSET, by `count`
// copies of the token's key pairs taken on the first call. The records are plain bytes, copied in
// and out with memcpy (kspEnumKeyPairAt), so no array is indexed past a declared bound.
struct KspEnumState {
    uint64_t index;
    uint64_t count;
};

constexpr size_t KSP_ENUM_KEY_PAIRS_OFFSET =
    (sizeof(KspEnumState) + alignof(CalythKeyPair) - 1) / alignof(CalythKeyPair) * alignof(CalythKeyPair);

struct KspSecret {
    unsigned char secret[KSP_SECRET_ROOM] = {};
    uint32_t length = 0;
    KspProvider* provider = nullptr;  // the provider that computed it; must outlive the secret
};

inline KspProvider* kspProviderFrom(NCRYPT_PROV_HANDLE handle) {
    return reinterpret_cast<KspProvider*>(handle);
}
inline KspKey* kspKeyFrom(NCRYPT_KEY_HANDLE handle) {
    return reinterpret_cast<KspKey*>(handle);
}
inline KspSecret* kspSecretFrom(NCRYPT_SECRET_HANDLE handle) {
    return reinterpret_cast<KspSecret*>(handle);
}
