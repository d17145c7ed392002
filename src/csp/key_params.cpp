// Key parameters: mode, permissions, algorithm, sizes and the key's certificate; setting the IV,
// the mode and storing a certificate on the token.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "cert/certificate_import.h"
#include "csp/csp_context.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "csp/entry_point_guard.h"
#include "csp/key_copy.h"
#include "csp/key_handle.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/process_state.h"
#include "token/secret_text.h"
#include "token/token_table.h"
#include "util/bounded_length.h"
#include "util/der_header.h"
#include "util/utils.h"

namespace {

constexpr DWORD kDwordSize = sizeof(DWORD);

// Size rules of the 32-bit key parameters. KP_MODE treats only a missing buffer as a size query
// (a zero length with a buffer is too small); the others also answer a zero length as a query.
enum class DwordQuery { ZeroLengthIsTooSmall, ZeroLengthIsQuery };

BOOL answerDword(DWORD value, BYTE* pbData, DWORD* pcbDataLen, DwordQuery rule, const std::string& name,
                 const std::string& valueLine) {
    bool sizeQuery = pbData == nullptr || (rule == DwordQuery::ZeroLengthIsQuery && *pcbDataLen == 0);
    if (sizeQuery) {
        *pcbDataLen = kDwordSize;
        logDebug("CPGetKeyParam: " + name + " size query, return TRUE");
        return TRUE;
    }
    if (*pcbDataLen < kDwordSize) {
        *pcbDataLen = kDwordSize;
        return failWithError(ERROR_MORE_DATA, "CPGetKeyParam: " + name + " buffer too small, return FALSE");
    }
    std::memcpy(pbData, &value, kDwordSize);
    *pcbDataLen = kDwordSize;
    if (!valueLine.empty())
        logDebug(valueLine);
    logDebug("CPGetKeyParam: return TRUE");
    return TRUE;
}

// The token certificate of a key: same non-empty label, or same object identifier.
bool findKeyCertificate(const CspContext* context, const KEY_HANDLE* key, std::vector<unsigned char>* der) {
    calyth_initDevice(context->serialNumber.c_str(), true, context->deviceContext);
    std::vector<CalythCertificate> certificates =
        calyth_getCertificateList(context->serialNumber.c_str(), context->deviceContext);
    for (const CalythCertificate& certificate : certificates) {
        char label[sizeof(certificate.label) + 1];
        copyLabel(label, sizeof(certificate.label), certificate.label, sizeof(certificate.label));
        bool sameLabel = label[0] != '\0' && std::strcmp(label, key->label) == 0;
        bool sameObject = certificate.objectIdLength == key->objectIdLength &&
                          lengthFits(key->objectIdLength, sizeof(certificate.objectId)) &&
                          std::memcmp(certificate.objectId, key->objectId, key->objectIdLength) == 0;
        if (sameLabel || sameObject) {
            der->assign(certificate.der,
                        certificate.der + fieldLength(certificate.der, certificate.derLength));
            return true;
        }
    }
    return false;
}

BOOL getCertificate(const CspContext* context, const KEY_HANDLE* key, BYTE* pbData, DWORD* pcbDataLen) {
    std::vector<unsigned char> der;
    if (!findKeyCertificate(context, key, &der))
        return failWithError(NTE_NOT_FOUND, "CPGetKeyParam: KP_CERTIFICATE not found, return FALSE");
    DWORD length = static_cast<DWORD>(der.size());
    if (pbData == nullptr || *pcbDataLen == 0) {
        *pcbDataLen = length;
        logDebug("CPGetKeyParam: KP_CERTIFICATE size query, len=" + std::to_string(length) + ", return TRUE");
        return TRUE;
    }
    if (*pcbDataLen < length) {
        *pcbDataLen = length;
        return failWithError(ERROR_MORE_DATA, "CPGetKeyParam: KP_CERTIFICATE buffer too small, return FALSE");
    }
    std::memcpy(pbData, der.data(), length);
    *pcbDataLen = length;
    logDebug("CPGetKeyParam: KP_CERTIFICATE copied, len=" + std::to_string(length) + ", return TRUE");
    return TRUE;
}

BOOL getKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen) {
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPGetKeyParam: context is null or not initialized");
    if (hKey == 0)
        return failWithError(NTE_BAD_KEY, "CPGetKeyParam: key handle is null");
    const CspContext* context = cspContextFrom(hProv);
    const KEY_HANDLE* key = keyHandleFrom(hKey);

    Utils utils;
    logDebug("CPGetKeyParam - dwparam : " + std::to_string(dwParam));
    logDebug("CPGetKeyParam - key id : " +
             utils.bytesToHex(key->keyId, std::min(key->keyIdLength, KEY_ID_LENGTH)));
    if (pcbDataLen == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPGetKeyParam: pcbDataLen is null");

    switch (dwParam) {
        case KP_MODE:
            return answerDword(key->mode, pbData, pcbDataLen, DwordQuery::ZeroLengthIsTooSmall, "KP_MODE",
                               "CPGetKeyParam - KP_MODE = " + std::to_string(key->mode));
        case KP_PERMISSIONS: {
            DWORD permissions = (key->keyUsage == CALYTH_USAGE_EXCHANGE || key->keyUsage == CALYTH_USAGE_BOTH)
                                    ? CRYPT_DECRYPT
                                    : 0;
            return answerDword(permissions, pbData, pcbDataLen, DwordQuery::ZeroLengthIsQuery,
                               "KP_PERMISSIONS", "");
        }
        case KP_ALGID:
            return answerDword(key->algId, pbData, pcbDataLen, DwordQuery::ZeroLengthIsQuery, "KP_ALGID",
                               "CPGetKeyParam - copying alg id : " + std::to_string(key->algId));
        case KP_BLOCKLEN:
        case KP_KEYLEN:
            return answerDword(key->bits, pbData, pcbDataLen, DwordQuery::ZeroLengthIsQuery,
                               "KP_BLOCKLEN/KP_KEYLEN", "");
        case KP_CERTIFICATE:
            return getCertificate(context, key, pbData, pcbDataLen);
        default:
            return failWithError(NTE_BAD_TYPE, "CPGetKeyParam: unsupported dwParam=" +
                                                   std::to_string(dwParam) + ", return FALSE");
    }
}

BOOL setCertificate(CspContext* context, const KEY_HANDLE* key, const BYTE* pbData) {
    if (pbData == nullptr)
        return failWithError(ERROR_INVALID_PARAMETER, "CPSetKeyParam: KP_CERTIFICATE pbData is null");
    if (pbData[0] != 0x30)
        return failWithError(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE invalid DER (not a SEQUENCE)");
    // No length comes with the certificate: its header says how many bytes the caller handed over.
    uint32_t total = 0;
    if (derTotalLength(pbData, kDerLengthUnknown, &total) != DerHeaderResult::Ok)
        return failWithError(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE unsupported DER length encoding");
    logDebug("CPSetKeyParam: KP_CERTIFICATE DER length=" + std::to_string(total));

    CalythCertificate record{};
    if (total > sizeof(record.der))
        return failWithError(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE too large for the token, length=" +
                                               std::to_string(total));

    WipedText pin{getValidatedPin(context->serialNumber)};
    if (pin.text.empty() && !context->serialNumber.empty()) {
        char pinBuffer[PIN_BUFFER_SIZE] = {};
        BOOL loggedIn = loginUser(context, pinBuffer);
        SecureZeroMemory(pinBuffer, sizeof pinBuffer);
        if (!loggedIn)
            return failWithError(NTE_FAIL, "CPSetKeyParam: KP_CERTIFICATE login failed");
        pin.text = getValidatedPin(context->serialNumber);
    }

    std::memcpy(record.keyId, key->keyId, sizeof(record.keyId));
    std::memcpy(record.der, pbData, total);
    record.derLength = static_cast<int32_t>(total);
    int32_t objectIdLength = static_cast<int32_t>(fieldLength(record.objectId, key->objectIdLength));
    std::memcpy(record.objectId, key->objectId, objectIdLength);
    record.objectIdLength = objectIdLength;
    copyLabel(record.label, KEY_LABEL_CHARACTERS, key->label, sizeof(key->label));

    int32_t result =
        importCertificateWithChain(context->serialNumber, pin.text, record, context->deviceContext);
    if (result != 0)
        return failWithError(NTE_FAIL,
                             "CPSetKeyParam: KP_CERTIFICATE import failed ret=" + std::to_string(result));
    logDebug("CPSetKeyParam: KP_CERTIFICATE imported successfully");
    return TRUE;
}

// KP_IV replaces the process-wide IV: 16 bytes for an AES-256 session key, 8 for triple DES.
void setIv(const KEY_HANDLE* key, const BYTE* pbData) {
    size_t length = key->algId == KEY_ALG_SYMMETRIC_AES_256 ? 16
                    : key->algId == KEY_ALG_SYMMETRIC_3DES  ? 8
                                                            : 0;
    if (length == 0 || pbData == nullptr)
        return;
    setProcessIv(pbData, length);
}

BOOL setKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData, DWORD dwFlags) {
    if (!isUsableContext(hProv))
        return failWithError(NTE_BAD_UID, "CPSetKeyParam: context is null or not initialized");
    if (hKey == 0)
        return failWithError(NTE_BAD_KEY, "CPSetKeyParam: key handle is null");
    CspContext* context = cspContextFrom(hProv);
    KEY_HANDLE* key = keyHandleFrom(hKey);

    Utils utils;
    logDebug("Set key param key id : " + utils.bytesToHex(key->keyId, KEY_ID_LENGTH));
    logDebug("Set key param  dwParam : " + std::to_string(dwParam));
    logDebug("Set key param  dwFlags : " + std::to_string(dwFlags));
    logDebug("Set key param key algo : " + std::to_string(key->algId));

    DWORD value = 0;
    if (pbData != nullptr && dwParam != KP_CERTIFICATE && dwParam != KP_IV)
        std::memcpy(&value, pbData, sizeof(value));
    switch (dwParam) {
        case KP_IV:
            setIv(key, pbData);
            break;
        case KP_PADDING:
            if (pbData != nullptr)
                logDebug("CPSetKeyParam: KP_PADDING = " + std::to_string(value));
            break;
        case KP_MODE:
            if (pbData != nullptr) {
                key->mode = value;
                logDebug("CPSetKeyParam: KP_MODE = " + std::to_string(value));
            }
            break;
        case KP_PERMISSIONS:
            if (pbData != nullptr)
                logDebug("CPSetKeyParam: KP_PERMISSIONS = " + std::to_string(value));
            break;
        case KP_CERTIFICATE:
            if (!setCertificate(context, key, pbData))
                return FALSE;
            break;
        default:
            logDebug("CPSetKeyParam: unhandled dwParam=" + std::to_string(dwParam));
            break;
    }
    logDebug("CPSetKeyParam: return TRUE");
    return TRUE;
}

}  // namespace

extern "C" {

BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                          DWORD /*dwFlags*/) {
    logDebug("CPGetKeyParam");
    return runEntryPoint("CPGetKeyParam",
                         [&] { return getKeyParam(hProv, hKey, dwParam, pbData, pcbDataLen); });
}

BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData,
                          DWORD dwFlags) {
    logDebug("CPSetKeyParam");
    return runEntryPoint("CPSetKeyParam", [&] { return setKeyParam(hProv, hKey, dwParam, pbData, dwFlags); });
}

}  // extern "C"
