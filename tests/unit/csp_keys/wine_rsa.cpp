#include "wine_rsa.h"

#include <algorithm>

namespace keystest {

WineRsaKey::WineRsaKey(DWORD bits) {
    if (!CryptAcquireContextA(&provider_, nullptr, MS_ENHANCED_PROV_A, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT))
        return;
    if (!CryptGenKey(provider_, AT_KEYEXCHANGE, (bits << 16) | CRYPT_EXPORTABLE, &key_))
        key_ = 0;
}

WineRsaKey::~WineRsaKey() {
    if (key_ != 0)
        CryptDestroyKey(key_);
    if (provider_ != 0)
        CryptReleaseContext(provider_, 0);
}

std::vector<unsigned char> WineRsaKey::publicKeyBlob() const {
    DWORD length = 0;
    if (!CryptExportKey(key_, 0, PUBLICKEYBLOB, 0, nullptr, &length))
        return {};
    std::vector<unsigned char> blob(length);
    if (!CryptExportKey(key_, 0, PUBLICKEYBLOB, 0, blob.data(), &length))
        return {};
    blob.resize(length);
    return blob;
}

std::vector<unsigned char> WineRsaKey::modulusBigEndian() const {
    std::vector<unsigned char> blob = publicKeyBlob();
    if (blob.size() < 20)
        return {};
    std::vector<unsigned char> modulus(blob.begin() + 20, blob.end());
    std::reverse(modulus.begin(), modulus.end());
    return modulus;
}

std::vector<unsigned char> WineRsaKey::encrypt(const std::vector<unsigned char>& plain, bool oaep) const {
    DWORD bits = 0;
    DWORD size = sizeof bits;
    CryptGetKeyParam(key_, KP_KEYLEN, reinterpret_cast<BYTE*>(&bits), &size, 0);
    std::vector<unsigned char> buffer(plain);
    buffer.resize(std::max<size_t>(bits / 8, plain.size()));
    DWORD length = static_cast<DWORD>(plain.size());
    if (!CryptEncrypt(key_, 0, TRUE, oaep ? CRYPT_OAEP : 0, buffer.data(), &length,
                      static_cast<DWORD>(buffer.size())))
        return {};
    buffer.resize(length);
    return buffer;
}

std::vector<unsigned char> WineRsaKey::decrypt(const std::vector<unsigned char>& cipherLittleEndian,
                                               bool oaep) const {
    std::vector<unsigned char> buffer(cipherLittleEndian);
    DWORD length = static_cast<DWORD>(buffer.size());
    if (!CryptDecrypt(key_, 0, TRUE, oaep ? CRYPT_OAEP : 0, buffer.data(), &length))
        return {};
    buffer.resize(length);
    return buffer;
}

HCRYPTKEY importIntoWine(HCRYPTPROV provider, const std::vector<unsigned char>& blob) {
    HCRYPTKEY key = 0;
    if (!CryptImportKey(provider, blob.data(), static_cast<DWORD>(blob.size()), 0, 0, &key))
        return 0;
    return key;
}

std::vector<unsigned char> wineBlobFromSubjectPublicKeyInfo(const unsigned char* der, size_t length) {
    std::vector<unsigned char> out;
    CERT_PUBLIC_KEY_INFO* info = nullptr;
    DWORD infoSize = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, der, static_cast<DWORD>(length),
                             CRYPT_DECODE_ALLOC_FLAG, nullptr, &info, &infoSize))
        return out;
    HCRYPTPROV provider = 0;
    if (CryptAcquireContextA(&provider, nullptr, MS_ENHANCED_PROV_A, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
        HCRYPTKEY key = 0;
        if (CryptImportPublicKeyInfo(provider, X509_ASN_ENCODING, info, &key)) {
            DWORD size = 0;
            if (CryptExportKey(key, 0, PUBLICKEYBLOB, 0, nullptr, &size)) {
                out.resize(size);
                if (!CryptExportKey(key, 0, PUBLICKEYBLOB, 0, out.data(), &size))
                    out.clear();
                else
                    out.resize(size);
            }
            CryptDestroyKey(key);
        }
        CryptReleaseContext(provider, 0);
    }
    LocalFree(info);
    return out;
}

}  // namespace keystest
