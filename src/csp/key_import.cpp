// Key import: CryptoAPI key blobs become key objects. Public RSA keys and SIMPLEBLOB session keys
// live only in memory; plaintext and wrapped AES keys are stored on the token first.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_point_guard.h"
#include "csp/key_copy.h"
#include "csp/key_handle.h"
#include "log/log.h"
#include "token/aes_key_transfer.h"
#include "token/device_library.h"
#include "token/device_output.h"
#include "token/secret_text.h"
#include "token/token_table.h"
#include "util/capi_blobs.h"
#include "util/encoding.h"
#include "util/rsa_key_fields.h"
#include "util/utils.h"

namespace {

static_assert(sizeof(BLOBHEADER) == kCapiBlobHeaderSize);
static_assert(sizeof(BLOBHEADER) + sizeof(RSAPUBKEY) == kCapiRsaPublicHeaderSize);

HCRYPTKEY handleOf(KEY_HANDLE* key) {
    return reinterpret_cast<HCRYPTKEY>(key);
}

// Gives an imported secret key to a key object; false when it does not fit.
bool attachSymmetricKey(KEY_HANDLE* key, const unsigned char* bytes, int length) {
    if (length < 0 || length > static_cast<int>(sizeof(key->symmetricKey)))
        return false;
    std::memcpy(key->symmetricKey, bytes, length);
    key->symmetricKeyLength = length;
    key->bits = static_cast<uint32_t>(length) * 8;
    return true;
}

BOOL keyTooLong(const char* blobName, int length) {
    return failWithError(NTE_BAD_DATA, std::string("CPImportKey ") + blobName +
                                           ": key material too long, length=" + std::to_string(length));
}

BOOL importPublicKeyBlob(const BYTE* pbData, DWORD cbData, const CapiBlobFront& front, HCRYPTKEY* phKey) {
    CapiRsaPublicKey parsed;
    switch (parseCapiRsaPublicKey(pbData, cbData, &parsed)) {
        case CapiPublicKeyResult::BadMagic: {
            char actual[16];
            (void)std::snprintf(actual, sizeof actual, "%x", parsed.magic);
            return failWithError(
                NTE_BAD_DATA, std::string("CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0x") + actual);
        }
        case CapiPublicKeyResult::TooShort:
            return failWithError(NTE_BAD_DATA, "CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=" +
                                                   std::to_string(cbData) +
                                                   " required=" + std::to_string(parsed.required));
        case CapiPublicKeyResult::NoMemory:
            return failWithError(NTE_NO_MEMORY,
                                 "CPImportKey PUBLICKEYBLOB: failed to allocate beModulus buffer");
        case CapiPublicKeyResult::Ok:
            break;
    }
    uint32_t bitlen = parsed.bitLength;
    const Bytes& beModulus = parsed.modulus;

    Utils utils;
    Bytes exponent = exponentBytes(parsed.exponent);
    std::string exponentHex = utils.bytesToHex(exponent.data(), static_cast<int>(exponent.size()));
    logDebug("Public exponent : " + exponentHex);
    Bytes der = buildRsaSubjectPublicKeyInfo(
        utils.bytesToHex(beModulus.data(), static_cast<int>(beModulus.size())), exponentHex);

    KEY_HANDLE* key = allocateKeyHandle();
    if (key == nullptr)
        return failWithError(NTE_NO_MEMORY, "CPImportKey PUBLICKEYBLOB: failed to allocate KEY_HANDLE");
    key->keyIdLength = KEY_ID_LENGTH;
    key->inMemory = 1;
    key->algId = front.keyAlgorithm;
    key->bits = bitlen;
    size_t stored = std::min(der.size(), sizeof(key->publicKey));
    std::memcpy(key->publicKey, der.data(), stored);
    key->publicKeyLength = static_cast<int32_t>(stored);
    key->sizeCode = rsaSizeCodeForBits(bitlen);
    if (key->sizeCode == 0 || der.size() > sizeof(key->publicKey)) {
        freeKeyHandle(key);
        return failWithError(NTE_BAD_DATA, "Unsupported RSA key size");
    }

    *phKey = handleOf(key);
    logDebug("PUBLICKEYBLOB imported successfully");
    return TRUE;
}

// One unwrapping attempt with the token key behind hPubKey.
int decryptWithToken(const CspContext* context, const KEY_HANDLE* unwrapKey, const std::string& pin,
                     const Bytes& encrypted, DeviceOutput* plain) {
    plain->release();
    return calyth_decrypt(context->serialNumber.c_str(), unwrapKey->keyId, pin.c_str(), encrypted.data(),
                          static_cast<int>(encrypted.size()), &plain->bytes, &plain->length,
                          unwrapKey->tokenFlag != 0, context->deviceContext);
}

BOOL importSimpleBlob(const CspContext* context, const BYTE* pbData, int dataLength,
                      const CapiBlobFront& front, HCRYPTKEY hPubKey, HCRYPTKEY* phKey) {
    if (hPubKey == 0)
        return failWithError(NTE_BAD_TYPE, "SIMPLEBLOB requires public key handle");
    const KEY_HANDLE* unwrapKey = keyHandleFrom(hPubKey);
    Utils utils;
    logDebug("Input key id : " + utils.bytesToHex(unwrapKey->keyId, KEY_ID_LENGTH));

    // The blob carries the session key little-endian; the token expects big-endian first.
    const BYTE* body = pbData + kCapiBlobBodyOffset;
    Bytes littleEndian(body, body + dataLength);
    Bytes bigEndian(littleEndian.rbegin(), littleEndian.rend());
    WipedText pin{getValidatedPin(context->serialNumber)};

    DeviceOutput plain;
    if (decryptWithToken(context, unwrapKey, pin.text, bigEndian, &plain) != 0) {
        logError("SIMPLEBLOB decryption failed");
        if (decryptWithToken(context, unwrapKey, pin.text, littleEndian, &plain) != 0)
            return failWithError(NTE_FAIL, "SIMPLEBLOB decryption failed (both orderings)");
    }

    uint32_t type = 0;
    switch (front.keyAlgorithm) {
        case CALG_3DES:
            type = CALYTH_SYMMETRIC_3DES;
            break;
        case CALG_AES_128:
            type = CALYTH_SYMMETRIC_AES_128;
            break;
        case CALG_AES_256:
            type = CALYTH_SYMMETRIC_AES_256;
            break;
        default:
            return failWithError(
                NTE_BAD_ALGID, "Unsupported algorithm for SIMPLEBLOB: " + std::to_string(front.keyAlgorithm));
    }

    KEY_HANDLE* key = allocateKeyHandle();
    if (key == nullptr)
        return failWithError(NTE_NO_MEMORY, "CPImportKey SIMPLEBLOB: failed to allocate KEY_HANDLE");
    key->keyIdLength = KEY_ID_LENGTH;
    key->inMemory = 1;
    key->algId = type;
    key->sizeCode = static_cast<int32_t>(type);
    // A device that answers success without a block counts as an empty key, never a read from null.
    if (!attachSymmetricKey(key, plain.bytes, static_cast<int>(plain.size()))) {
        freeKeyHandle(key);
        return keyTooLong("SIMPLEBLOB", plain.length);
    }
    *phKey = handleOf(key);
    logDebug("Output key id : " + utils.bytesToHex(key->keyId, KEY_ID_LENGTH));
    logDebug("SIMPLEBLOB imported successfully (AES)");
    return TRUE;
}

// Stores an AES key on the token and, when the token takes it, makes the key object that names it
// (identifier, label and flag as the token filled them in).
enum class TokenAesResult { Stored, Refused, TooLong, NoMemory };

TokenAesResult importAesKeyToToken(const CspContext* context, const unsigned char* bytes, int length,
                                   int32_t type, ALG_ID aiKeyAlg, HCRYPTKEY* phKey) {
    WipedSymmetricKey stored;
    const CalythSymmetricKey& record = stored.record;
    WipedText pin{getValidatedPin(context->serialNumber)};
    switch (storeAesKeyOnToken(context->serialNumber, pin.text, bytes, length, type, context->deviceContext,
                               &stored.record)) {
        case AesStoreResult::TooLong:
            return TokenAesResult::TooLong;
        case AesStoreResult::Refused:
            return TokenAesResult::Refused;
        case AesStoreResult::Stored:
            break;
    }

    KEY_HANDLE* key = allocateKeyHandle();
    if (key == nullptr)
        return TokenAesResult::NoMemory;
    std::memcpy(key->keyId, record.keyId, sizeof(key->keyId));
    key->keyIdLength = KEY_ID_LENGTH;
    key->inMemory = 1;
    key->algId = aiKeyAlg;
    key->sizeCode = type;
    key->tokenFlag = record.tokenFlag;
    copyLabel(key->label, KEY_LABEL_CHARACTERS, record.label, sizeof(record.label));
    if (!attachSymmetricKey(key, record.keyBytes, std::min<int>(record.keyLength, sizeof(record.keyBytes)))) {
        freeKeyHandle(key);
        return TokenAesResult::TooLong;
    }
    *phKey = handleOf(key);
    return TokenAesResult::Stored;
}

BOOL importPlainTextKeyBlob(const CspContext* context, const BYTE* pbData, int dataLength,
                            const CapiBlobFront& front, HCRYPTKEY* phKey) {
    int32_t type = 0;
    if (front.keyAlgorithm == CALG_AES_128)
        type = CALYTH_SYMMETRIC_AES_128;
    else if (front.keyAlgorithm == CALG_AES_256)
        type = CALYTH_SYMMETRIC_AES_256;
    else
        return failWithError(NTE_BAD_ALGID, "Unsupported algorithm for PLAINTEXTKEYBLOB: " +
                                                std::to_string(front.keyAlgorithm));
    if (dataLength > static_cast<int>(sizeof(KEY_HANDLE::symmetricKey)))
        return keyTooLong("PLAINTEXTKEYBLOB", dataLength);

    switch (importAesKeyToToken(context, pbData + kCapiBlobBodyOffset, dataLength, type, front.keyAlgorithm,
                                phKey)) {
        case TokenAesResult::Stored:
            logDebug("PLAINTEXTKEYBLOB imported successfully (AES)");
            return TRUE;
        case TokenAesResult::NoMemory:
            return failWithError(NTE_NO_MEMORY,
                                 "CPImportKey PLAINTEXTKEYBLOB: failed to allocate KEY_HANDLE");
        case TokenAesResult::TooLong:
            return keyTooLong("PLAINTEXTKEYBLOB", dataLength);
        default:
            return failWithError(NTE_BAD_TYPE, "PLAINTEXTKEYBLOB import failed");
    }
}

BOOL importSymmetricWrapKeyBlob(const CspContext* context, const BYTE* pbData, int dataLength,
                                const CapiBlobFront& front, HCRYPTKEY* phKey) {
    logDebug("SYMMETRICWRAPKEYBLOB: wrapped key length = " + std::to_string(dataLength));
    // The wrapped key starts right after the BLOBHEADER; the data length keeps the blob's last four
    // bytes out of it.
    const BYTE* wrapped = pbData + kCapiBlobHeaderSize;

    DeviceOutput plain;
    CalythSymmetricKey unwrapper{};
    if (!unwrapWithTokenKek(context->serialNumber, context->deviceContext, wrapped, dataLength,
                            KekNaming::Identifier, &unwrapper, &plain))
        return failWithError(NTE_BAD_KEY, "Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK");
    Utils utils;
    logDebug("Successfully unwrapped key with KEK: " + utils.bytesToHex(unwrapper.keyId, KEY_ID_LENGTH));

    if (plain.length > static_cast<int>(sizeof(KEY_HANDLE::symmetricKey)))
        return keyTooLong("SYMMETRICWRAPKEYBLOB", plain.length);
    int32_t type = front.keyAlgorithm == CALG_AES_128 ? CALYTH_SYMMETRIC_AES_128 : CALYTH_SYMMETRIC_AES_256;
    switch (importAesKeyToToken(context, plain.bytes, plain.length, type, front.keyAlgorithm, phKey)) {
        case TokenAesResult::Stored:
            logDebug("SYMMETRICWRAPKEYBLOB imported successfully");
            return TRUE;
        case TokenAesResult::NoMemory:
            return failWithError(NTE_NO_MEMORY,
                                 "CPImportKey SYMMETRICWRAPKEYBLOB: failed to allocate KEY_HANDLE");
        case TokenAesResult::TooLong:
            return keyTooLong("SYMMETRICWRAPKEYBLOB", plain.length);
        default:
            return failWithError(NTE_BAD_TYPE, "Import of unwrapped AES key failed");
    }
}

BOOL importKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD cbData, HCRYPTKEY hPubKey, DWORD dwFlags,
               HCRYPTKEY* phKey) {
    logDebug("Input length : " + std::to_string(cbData));
    logDebug("Input flag : " + std::to_string(dwFlags));
    if (pbData == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPImportKey - Input data is null");
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPImportKey - Contest null or not initialised");
    if (phKey == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPImportKey - output key handle is null");
    const CspContext* context = cspContextFrom(hProv);

    CapiBlobFront front = readCapiBlobFront(pbData, cbData);
    int dataLength = capiBlobDataLength(cbData);
    logDebug("CPImportKey - input type : " + std::to_string(front.type));
    logDebug("CPImportKey - input version : " + std::to_string(front.version));
    logDebug("CPImportKey - input alg : " + std::to_string(front.keyAlgorithm));
    logDebug("CPImportKey - input data length : " + std::to_string(dataLength));
    if (dataLength <= 0)
        return failWithError(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty");

    switch (front.type) {
        case PUBLICKEYBLOB:
            return importPublicKeyBlob(pbData, cbData, front, phKey);
        case SIMPLEBLOB:
            return importSimpleBlob(context, pbData, dataLength, front, hPubKey, phKey);
        case PLAINTEXTKEYBLOB:
            return importPlainTextKeyBlob(context, pbData, dataLength, front, phKey);
        case SYMMETRICWRAPKEYBLOB:
            return importSymmetricWrapKeyBlob(context, pbData, dataLength, front, phKey);
        case PRIVATEKEYBLOB:
        case PUBLICKEYBLOBEX:
            return failWithError(NTE_BAD_TYPE, "Key Block Not Implemented yet");
        default:
            return failWithError(NTE_BAD_TYPE,
                                 "CPImportKey - Unsupported type : " + std::to_string(front.type));
    }
}

}  // namespace

extern "C" BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD cbDataLen, HCRYPTKEY hPubKey,
                                   DWORD dwFlags, HCRYPTKEY* phKey) {
    logDebug("CPImportKey");
    return runEntryPoint("CPImportKey",
                         [&] { return importKey(hProv, pbData, cbDataLen, hPubKey, dwFlags, phKey); });
}
