// AES key material moving onto the token, shared by both front-ends' key import: unwrapping a
// wrapped key with one of the token's key-encryption keys, and storing plain key bytes as a new
// token AES key.
#pragma once

#include <windows.h>

#include <string>

#include "token/device_library.h"
#include "token/device_output.h"

// How calyth_decrypt_aes is told which key-encryption key to use: the CryptoAPI side names it by
// its 16-byte identifier, the CNG side by its reference field (referenceLength bytes).
enum class KekNaming { Identifier, Reference };

// Tries the token's AES keys of type 8 or 10 in list order until one unwraps `wrapped` (no IV, the
// key's own flag byte). True with that key's record in *kek and the plaintext in *plain; false when
// none does (or the token has no AES key).
bool unwrapWithTokenKek(const std::string& serial, void* deviceContext, const unsigned char* wrapped,
                        int wrappedLength, KekNaming naming, CalythSymmetricKey* kek, DeviceOutput* plain);

enum class AesStoreResult { Stored, Refused, TooLong };

// A record that carries plain key bytes to the token, zeroed when it goes out of scope.
struct WipedSymmetricKey {
    CalythSymmetricKey record{};

    WipedSymmetricKey() = default;
    WipedSymmetricKey(const WipedSymmetricKey&) = delete;
    WipedSymmetricKey& operator=(const WipedSymmetricKey&) = delete;
    ~WipedSymmetricKey() { SecureZeroMemory(&record, sizeof record); }
};

// Fills a zeroed record with the key bytes, their length and `type` and hands it to
// calyth_importAesKey with the PIN; on Stored *record holds what the token filled in (identifier,
// reference, label, usage, flag). TooLong: the bytes do not fit the record and nothing was sent.
AesStoreResult storeAesKeyOnToken(const std::string& serial, const std::string& pin,
                                  const unsigned char* bytes, int length, int32_t type, void* deviceContext,
                                  CalythSymmetricKey* record);
