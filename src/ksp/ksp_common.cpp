#include "ksp/ksp_common.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "ksp/ksp_login.h"
#include "token/token_table.h"

KspProvider* usableProvider(NCRYPT_PROV_HANDLE handle) {
    KspProvider* provider = kspProviderFrom(handle);
    return provider != nullptr && provider->initialized != 0 ? provider : nullptr;
}

std::string narrowText(LPCWSTR text) {
    std::string out;
    if (text == nullptr)
        return out;
    for (; *text != L'\0'; ++text)
        out.push_back(static_cast<char>(*text & 0xFF));
    return out;
}

std::wstring wideText(const std::string& text) {
    std::wstring out;
    out.reserve(text.size());
    for (char c : text)
        out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return out;
}

wchar_t* mallocWideCopy(const std::wstring& text) {
    size_t bytes = (text.size() + 1) * sizeof(wchar_t);
    auto* copy = static_cast<wchar_t*>(std::malloc(bytes));
    if (copy != nullptr)
        std::memcpy(copy, text.c_str(), bytes);
    return copy;
}

bool sameWide(LPCWSTR text, const wchar_t* name) {
    return text != nullptr && std::wcscmp(text, name) == 0;
}

bool isEcAlgorithm(int32_t algorithm) {
    return algorithm == CALYTH_KEY_EC_P256 || algorithm == CALYTH_KEY_EC_P384 ||
           algorithm == CALYTH_KEY_EC_P521;
}

bool copyTokenPublicKey(const CalythKeyPair& keyPair, KspKey* key) {
    constexpr size_t room = std::min(sizeof keyPair.publicKey, sizeof key->publicKey);
    if (keyPair.publicKeyLength > 0 && static_cast<uint32_t>(keyPair.publicKeyLength) > room) {
        logError("KSP: Public key from the token too long for the key object, length=" +
                 std::to_string(keyPair.publicKeyLength));
        key->publicKeyLength = 0;
        return false;
    }
    size_t length = boundedLength(keyPair.publicKeyLength, room);
    std::memcpy(key->publicKey, keyPair.publicKey, length);
    key->publicKeyLength = static_cast<uint32_t>(length);
    return true;
}

void copyTokenKeyData(const CalythKeyPair& keyPair, KspKey* key) {
    std::memcpy(key->keyId, keyPair.keyId, KEY_ID_LENGTH);
    key->keyIdLength = KEY_ID_LENGTH;
    copyTokenPublicKey(keyPair, key);
    size_t linkLength =
        boundedLength(keyPair.objectIdLength, std::min(sizeof keyPair.objectId, sizeof key->linkId));
    std::memcpy(key->linkId, keyPair.objectId, linkLength);
    key->linkIdLength = static_cast<uint32_t>(linkLength);
    size_t labelLength = strnlen(keyPair.label, std::min(sizeof keyPair.label, KSP_LABEL_CHARACTERS));
    std::memcpy(key->label, keyPair.label, labelLength);
    key->label[labelLength] = '\0';
    key->reserved = 0;
    key->tokenFlag = keyPair.tokenFlag;
}

SECURITY_STATUS writeSizedOutput(const void* value, DWORD size, PBYTE pbOutput, DWORD cbOutput,
                                 DWORD* pcbResult) {
    *pcbResult = size;
    if (pbOutput == nullptr)
        return KSP_SUCCESS;
    if (cbOutput < size)
        return KSP_NTE_BUFFER_TOO_SMALL;
    if (size != 0)
        std::memcpy(pbOutput, value, size);
    return KSP_SUCCESS;
}

namespace {

// Each piece is a signed whole number: "-1.0.0" is below "2.0.0", not a wrapped-around huge one.
std::vector<long long> versionPieces(const std::string& text) {
    std::vector<long long> pieces;
    size_t start = 0;
    for (;;) {
        size_t dot = text.find('.', start);
        std::string piece = text.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        pieces.push_back(std::strtoll(piece.c_str(), nullptr, 10));
        if (dot == std::string::npos)
            return pieces;
        start = dot + 1;
    }
}

}  // namespace

bool firmwareAtLeast(const std::string& firmware, const std::string& minimum) {
    std::vector<long long> have = versionPieces(firmware);
    std::vector<long long> need = versionPieces(minimum);
    size_t count = std::max(have.size(), need.size());
    have.resize(count, 0);
    need.resize(count, 0);
    return have >= need;
}

std::string devicePassword(const KspProvider* provider) {
    return getValidatedPin(provider->serial);
}

bool kspPinCheckIgnoringSilent(const KspProvider* provider) {
    return kspEnsurePasswordValidated(provider->serial, provider->deviceContext);
}

SECURITY_STATUS kspPinGateHonouringSilent(const KspProvider* provider, DWORD flags,
                                          const std::string& operation) {
    if ((flags & NCRYPT_SILENT_FLAG) != 0 && !isPinValidated(provider->serial))
        return kspFail(KSP_NTE_SILENT_CONTEXT, operation + ": silent mode requested but PIN not validated");
    if (!kspPinCheckIgnoringSilent(provider))
        return kspFail(KSP_NTE_FAIL, operation + ": password validation failed");
    return KSP_SUCCESS;
}
