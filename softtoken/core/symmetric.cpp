#include "symmetric.h"

#include <gcrypt.h>

#include "crypto.h"
#include "status.h"

namespace softtoken {
namespace {

constexpr size_t kBlock = 16;

int aesAlgorithm(int keyLength) {
    switch (keyLength) {
        case 16:
            return GCRY_CIPHER_AES128;
        case 24:
            return GCRY_CIPHER_AES192;
        case 32:
            return GCRY_CIPHER_AES256;
        default:
            return 0;
    }
}

struct Cipher {
    gcry_cipher_hd_t h = nullptr;
    ~Cipher() { gcry_cipher_close(h); }
};

int openCipher(int mode, const unsigned char* key, int keyLength, const unsigned char* iv, size_t ivLength,
               Cipher& cipher) {
    ensureCryptoReady();
    int algorithm = aesAlgorithm(keyLength);
    if (!key || algorithm == 0)
        return kBadArgument;
    if (gcry_cipher_open(&cipher.h, algorithm, mode, 0) != 0 ||
        gcry_cipher_setkey(cipher.h, key, static_cast<size_t>(keyLength)) != 0)
        return kCryptoFailure;
    if (iv && gcry_cipher_setiv(cipher.h, iv, ivLength) != 0)
        return kCryptoFailure;
    return kOk;
}

int openBlockCipher(bool cbc, const unsigned char* key, int keyLength, const unsigned char* iv, int ivLength,
                    Cipher& cipher) {
    if (cbc && (!iv || ivLength != static_cast<int>(kBlock)))
        return kBadArgument;
    return openCipher(cbc ? GCRY_CIPHER_MODE_CBC : GCRY_CIPHER_MODE_ECB, key, keyLength, cbc ? iv : nullptr,
                      kBlock, cipher);
}

}  // namespace

int aesEncrypt(bool cbc, const unsigned char* key, int keyLength, const unsigned char* iv, int ivLength,
               const unsigned char* data, int dataLength, Bytes& out) {
    if ((!data && dataLength > 0) || dataLength < 0)
        return kBadArgument;
    Cipher cipher;
    int status = openBlockCipher(cbc, key, keyLength, iv, ivLength, cipher);
    if (status != kOk)
        return status;
    size_t pad = kBlock - static_cast<size_t>(dataLength) % kBlock;
    out.assign(data, data + dataLength);
    out.insert(out.end(), pad, static_cast<unsigned char>(pad));
    return gcry_cipher_encrypt(cipher.h, out.data(), out.size(), nullptr, 0) == 0 ? kOk : kCryptoFailure;
}

int aesDecrypt(bool cbc, const unsigned char* key, int keyLength, const unsigned char* iv, int ivLength,
               const unsigned char* data, int dataLength, Bytes& out) {
    if (!data || dataLength <= 0 || dataLength % static_cast<int>(kBlock) != 0)
        return kBadArgument;
    Cipher cipher;
    int status = openBlockCipher(cbc, key, keyLength, iv, ivLength, cipher);
    if (status != kOk)
        return status;
    out.assign(data, data + dataLength);
    if (gcry_cipher_decrypt(cipher.h, out.data(), out.size(), nullptr, 0) != 0)
        return kCryptoFailure;
    size_t pad = out.back();
    if (pad == 0 || pad > kBlock)
        return kDecryptFailed;
    for (size_t i = out.size() - pad; i < out.size(); ++i)
        if (out[i] != pad)
            return kDecryptFailed;
    out.resize(out.size() - pad);
    return kOk;
}

int aesUnwrap(const Bytes& key, const unsigned char* iv, int ivLength, const unsigned char* data,
              int dataLength, Bytes& out) {
    if (!data || dataLength < 24 || dataLength % 8 != 0 || (iv && ivLength != 8))
        return kBadArgument;
    Cipher cipher;
    int status =
        openCipher(GCRY_CIPHER_MODE_AESWRAP, key.data(), static_cast<int>(key.size()), iv, 8, cipher);
    if (status != kOk)
        return status;
    out.assign(static_cast<size_t>(dataLength) - 8, 0);
    return gcry_cipher_decrypt(cipher.h, out.data(), out.size(), data, static_cast<size_t>(dataLength)) == 0
               ? kOk
               : kDecryptFailed;
}

int aesWrap(const Bytes& key, const unsigned char* data, int dataLength, Bytes& out) {
    if (!data || dataLength < 16 || dataLength % 8 != 0)
        return kBadArgument;
    Cipher cipher;
    int status =
        openCipher(GCRY_CIPHER_MODE_AESWRAP, key.data(), static_cast<int>(key.size()), nullptr, 0, cipher);
    if (status != kOk)
        return status;
    out.assign(static_cast<size_t>(dataLength) + 8, 0);
    return gcry_cipher_encrypt(cipher.h, out.data(), out.size(), data, static_cast<size_t>(dataLength)) == 0
               ? kOk
               : kCryptoFailure;
}

}  // namespace softtoken
