// Signing, verification and ECDH with the token's keys.
#include <cstdlib>
#include <string>

#include "core/public_key.h"
#include "core/token_access.h"
#include "entry_guard.h"
#include "token/device_library.h"

using namespace softtoken;

namespace {

// The token offers RSA-PSS from firmware 2.0.0 on. Versions compare as dotted decimal numbers, a
// missing piece counting as 0.
bool pssOffered(const std::string& firmware) {
    const int minimum[] = {2, 0, 0};
    size_t position = 0;
    for (int piece : minimum) {
        size_t end = firmware.find('.', position);
        std::string text =
            firmware.substr(position, end == std::string::npos ? std::string::npos : end - position);
        long value = text.empty() ? 0 : std::strtol(text.c_str(), nullptr, 10);
        if (value != piece)
            return value > piece;
        position = end == std::string::npos ? firmware.size() : end + 1;
    }
    return true;
}

}  // namespace

extern "C" {

int calyth_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                    const unsigned char* digest, int digestLength, unsigned char* signature,
                    int* signatureLength, bool, void*, bool usePss) {
    return guarded<int>(kFailed, [&] {
        if (!keyId || !digest || digestLength <= 0 || !signature || !signatureLength)
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "signHash", token);
        if (status != kOk)
            return status;
        std::shared_ptr<PrivateKey> key = token->privateKey(keyId);
        if (!key)
            return int(kKeyNotFound);
        if (usePss && !pssOffered(token->data.firmware))
            return int(kNotSupported);
        int required = static_cast<int>(key->signatureLength());
        if (*signatureLength < required) {
            *signatureLength = required;
            return int(kBufferTooSmall);
        }
        status = authorize(serial, token, pin, true);
        if (status != kOk)
            return status;
        Bytes out;
        status = signDigest(*key, digest, digestLength, usePss, out);
        if (status != kOk)
            return status;
        std::memcpy(signature, out.data(), out.size());
        *signatureLength = static_cast<int>(out.size());
        return int(kOk);
    });
}

int calyth_verifySignatureHash(unsigned int, const char* serial, const unsigned char* digest,
                               int digestLength, const unsigned char* publicKey, int publicKeyLength,
                               const unsigned char* signature, int signatureLength, void*, bool usePss) {
    return guarded<int>(kFailed, [&] {
        if (!isEmpty(serial)) {
            TokenRef token;
            int status = openConnected(serial, "verifySignatureHash", token);
            if (status != kOk)
                return status;
            if (usePss && !pssOffered(token->data.firmware))
                return int(kNotSupported);
        }
        PublicKey key;
        if (!parsePublicKey(publicKey, publicKeyLength, key))
            return int(kBadArgument);
        return verifyDigest(key, digest, digestLength, signature, signatureLength, usePss);
    });
}

int calyth_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                      const unsigned char* peerPoint, int peerPointLength, unsigned char** secret,
                      int* secretLength, void*) {
    return guarded<int>(kFailed, [&] {
        if (!keyId || !peerPoint || peerPointLength <= 0 || !secret || !secretLength)
            return int(kBadArgument);
        TokenRef token;
        int status = openConnected(serial, "ecdhDerive", token);
        if (status != kOk)
            return status;
        std::shared_ptr<PrivateKey> key = token->privateKey(keyId);
        if (!key)
            return int(kKeyNotFound);
        if (!isEcCode(key->sizeCode()))
            return int(kNotSupported);
        status = authorize(serial, token, pin, false);
        if (status != kOk)
            return status;
        Bytes shared;
        status = ecdhSharedSecret(*key, peerPoint, peerPointLength, shared);
        return status == kOk ? handOut(shared, secret, secretLength) : status;
    });
}

}  // extern "C"
