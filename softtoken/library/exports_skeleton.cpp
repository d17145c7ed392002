// Placeholder bodies of the 27 device functions; each answers "not supported" until it is built.
#include "token/device_library.h"

namespace {
constexpr int kNotSupported = 10;
}

extern "C" {
int calyth_init(int, void*, int) { return 0; }
std::vector<std::string> calyth_getConnectedDeviceList(bool, void*) { return {}; }
int calyth_initDevice(const char*, bool, void*) { return kNotSupported; }
TokenInfo calyth_getTokenInfo(const char*, void*) { return TokenInfo{}; }
int calyth_validatePassword(const char*, const char*, int, int*, void*) { return kNotSupported; }
std::vector<CalythKeyPair>& calyth_getKeyPairList(const char*, void*) {
    static std::vector<CalythKeyPair> empty;
    return empty;
}
std::vector<CalythSymmetricKey>& calyth_getAesKeyList(const char*, void*) {
    static std::vector<CalythSymmetricKey> empty;
    return empty;
}
std::vector<CalythCertificate>& calyth_getCertificateList(const char*, void*) {
    static std::vector<CalythCertificate> empty;
    return empty;
}
int calyth_getCertificateDetails(const unsigned char*, int, CertificateDetails&, void*) { return kNotSupported; }
int calyth_generateKeyPair(const char*, const char*, CalythKeyPair*, void*) { return kNotSupported; }
int calyth_deleteKeyPair(const char*, const unsigned char*, const char*, bool, void*) { return kNotSupported; }
int calyth_updateKeyPairDetails(const char*, const unsigned char*, const char*, const char*, const unsigned char*,
                                int, void*) {
    return kNotSupported;
}
int calyth_importCertificate(const char*, const char*, CalythCertificate*, void*) { return kNotSupported; }
CalythFileList calyth_getFilesWithExtensionsAndConvertDER(const std::string&, const std::vector<std::string>&,
                                                          void*) {
    return {};
}
int calyth_importAesKey(const char*, const char*, CalythSymmetricKey*, void*) { return kNotSupported; }
int calyth_initHash(const char*, int, void**, void*) { return kNotSupported; }
int calyth_updateHash(void*, const unsigned char*, int, void*) { return kNotSupported; }
int calyth_finalHash(void*, unsigned char*, int*, void*) { return kNotSupported; }
int calyth_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char*,
                    int*, bool, void*, bool) {
    return kNotSupported;
}
int calyth_verifySignatureHash(unsigned int, const char*, const unsigned char*, int, const unsigned char*, int,
                               const unsigned char*, int, void*, bool) {
    return kNotSupported;
}
int calyth_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char*, int*,
                   const unsigned char*, int, void*) {
    return kNotSupported;
}
int calyth_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char**,
                   int*, bool, void*) {
    return kNotSupported;
}
int calyth_encrypt_aes(const char*, EncryptionType, const unsigned char*, int, const unsigned char*, int,
                       unsigned char**, int*, bool, const unsigned char*, int, const unsigned char*, int, void*) {
    return kNotSupported;
}
int calyth_decrypt_aes(const char*, const unsigned char*, int, const unsigned char*, int, unsigned char**, int*,
                       bool, const unsigned char*, int, void*) {
    return kNotSupported;
}
int calyth_decryptSymetric(const char*, const unsigned char*, int, unsigned char*, int*, const unsigned char*, int,
                           const unsigned char*, int, void*) {
    return kNotSupported;
}
int calyth_ecdhDerive(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char**,
                      int*, void*) {
    return kNotSupported;
}
int calyth_generateRamdomNumber(const char*, int, unsigned char*, bool, void*) { return kNotSupported; }
}
