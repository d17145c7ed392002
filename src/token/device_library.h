// The contract with the token maker's device library, CalythDSCLibrary.dll.
//
// The provider never talks to the USB device: every token operation goes through the 27 functions
// declared here. Their names, including the library's own misspellings (calyth_generateRamdomNumber,
// calyth_decryptSymetric), and their argument lists are fixed by the library and must not change.
// The functions have C linkage, so the DLL exports them under these exact names, but they pass C++
// standard-library strings and vectors: the provider and the library must be built with the same
// C++ toolchain (mingw-w64 g++, libstdc++ with the C++11 string ABI, msvcrt heap).
//
// Conventions of the whole interface:
//  - The last (or next-to-last) `void* ctx` argument is an untyped context pointer. The provider
//    always passes null; an implementation may ignore it.
//  - A token is named by its serial number, a NUL-terminated narrow string exactly as
//    calyth_getConnectedDeviceList returned it.
//  - A key pair is named by its 16 raw identifier bytes.
//  - int results: 0 success, any other value a library status code. calyth_validatePassword also
//    answers 48 for "system time mismatch".
//  - Ownership: lists returned by reference stay owned by the library and remain valid and
//    unchanged while the calling thread copies them; the caller copies before iterating and never
//    frees them. Buffers returned through `unsigned char**` are allocated with malloc() by the
//    library and released by the caller with free().
//  - Big-endian everywhere: signatures, ciphertexts, moduli and EC coordinates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "util/device_codes.h"

// Device result codes the provider tells apart.
constexpr int CALYTH_OK = 0;
constexpr int CALYTH_SYSTEM_TIME_MISMATCH = 48;  // calyth_validatePassword only
constexpr int CALYTH_SSO_EXPIRED = 49;           // signing and decryption

// The token state, returned by value. The provider reads the leading text (non-empty means the
// token answered), the firmware version text, userLoggedIn and ssoValid; single sign-on is active
// when label is non-empty and userLoggedIn == 1 and ssoValid == 1.
struct TokenInfo {
    std::string label;            // 0: the token label
    std::string manufacturer;     // 32
    std::string model;            // 64
    std::string serialNumber;     // 96
    std::string hardwareVersion;  // 128
    std::string firmwareVersion;  // 160: "major.minor.patch", e.g. "2.1.0"
    std::string reserved;         // 192
    int32_t maxPinLength;         // 224
    int32_t minPinLength;         // 228
    int32_t pinAttemptsLeft;      // 232
    int32_t userLoggedIn;         // 236
    int32_t ssoValid;             // 240
    int32_t flags;                // 244
};

// One key pair on the token (elements of calyth_getKeyPairList, filled by calyth_generateKeyPair).
// The provider copies vectors of it, so the layout is fixed byte for byte.
struct CalythKeyPair {
    int32_t handle;                 // 0: library-internal, not read by the provider
    unsigned char keyId[16];        // 4
    unsigned char publicKey[1024];  // 20: raw big-endian RSA modulus, EC point 04||X||Y, or DER
    int32_t publicKeyLength;        // 1044
    unsigned char objectId[128];    // 1048: shared by the key and its certificates
    int32_t objectIdLength;         // 1176
    char label[132];                // 1180: NUL-terminated alias, may be empty
    int32_t keyUsage;               // 1312: 1 signature, 2 exchange, 3 both (0 in a request: 3)
    int32_t keySizeCode;            // 1316: 1-4 RSA-1024..4096, 5-7 EC P-256/384/521
    unsigned char tokenFlag;        // 1320: 1 for a key kept on the token (copied into key objects)
    unsigned char padding[3];       // 1321
};

// One symmetric (AES / 3DES) key on the token (elements of calyth_getAesKeyList, filled by
// calyth_importAesKey). The caller of calyth_importAesKey fills keyBytes, keyLength and type; the
// library fills keyId, reference, referenceLength, label, keyUsage and tokenFlag. The reference
// bytes are the handle by which calyth_decrypt_aes names the key (the "link identifier").
struct CalythSymmetricKey {
    unsigned char keyId[16];       // 0
    unsigned char reference[128];  // 16
    int32_t referenceLength;       // 144
    char label[132];               // 148: NUL-terminated
    int32_t keyUsage;              // 280
    unsigned char tokenFlag;       // 284
    unsigned char padding[3];      // 285
    unsigned char keyBytes[128];   // 288: the plain key material on import; zeroed in listings
    int32_t keyLength;             // 416
    int32_t reserved;              // 420
    int32_t type;                  // 424: 8 AES-128, 10 AES-256, 11 3DES
    int32_t reserved2;             // 428
};

// One certificate on the token (elements of calyth_getCertificateList, filled by
// calyth_importCertificate).
struct CalythCertificate {
    int32_t handle;               // 0: library-internal
    unsigned char keyId[16];      // 4: identifier of the matching key pair, zero when none
    unsigned char der[3072];      // 20
    int32_t derLength;            // 3092
    unsigned char objectId[128];  // 3096: object identifier of the matching key pair
    int32_t objectIdLength;       // 3224
    char label[132];              // 3228: NUL-terminated, at most 128 characters used
    int32_t reserved[5];          // 3360
};

// What calyth_getCertificateDetails reads out of a DER certificate.
// Names are in the library's string form: the relative distinguished names from the least
// significant up (RFC 2253 order), "CN=Alice, O=Example, C=IN" for a certificate encoded C, O, CN,
// as CertNameToStr with CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG writes them;
// Utils::normalizeName turns them into the comparison form.
// The default label of an imported certificate is subjectCommonName + "_" + issuerCommonName.
struct CertificateDetails {
    std::string subjectName;
    std::string issuerName;
    std::string subjectCommonName;  // first label text
    std::string issuerCommonName;   // second label text
    std::string serialNumberHex;    // upper-case hexadecimal, big-endian
    std::string notBefore;          // "YYYY-MM-DD HH:MM:SS" UTC
    std::string notAfter;
    std::vector<unsigned char> publicKey;  // same form as CalythKeyPair::publicKey stores it:
                                           // RSA modulus (big-endian, no leading zero) or 04||X||Y
    int32_t keySizeCode = 0;               // as CalythKeyPair::keySizeCode; 0 if unknown
    bool selfSigned = false;               // subject equals issuer
};

// The offsets in TokenInfo's comments are the 64-bit ones; a 32-bit string takes 24 bytes.
constexpr size_t kLibraryStringSize = 2 * sizeof(void*) + 16;
static_assert(sizeof(std::string) == kLibraryStringSize, "libstdc++ with the C++11 string ABI is required");
static_assert(offsetof(TokenInfo, label) == 0);
static_assert(offsetof(TokenInfo, firmwareVersion) == 5 * kLibraryStringSize);
static_assert(offsetof(TokenInfo, userLoggedIn) == 7 * kLibraryStringSize + 12);
static_assert(offsetof(TokenInfo, ssoValid) == 7 * kLibraryStringSize + 16);
static_assert(sizeof(TokenInfo) == 7 * kLibraryStringSize + 24);

static_assert(sizeof(CalythKeyPair) == 1324);
static_assert(offsetof(CalythKeyPair, keyId) == 4);
static_assert(offsetof(CalythKeyPair, publicKey) == 20);
static_assert(offsetof(CalythKeyPair, publicKeyLength) == 1044);
static_assert(offsetof(CalythKeyPair, objectId) == 1048);
static_assert(offsetof(CalythKeyPair, objectIdLength) == 1176);
static_assert(offsetof(CalythKeyPair, label) == 1180);
static_assert(offsetof(CalythKeyPair, keyUsage) == 1312);
static_assert(offsetof(CalythKeyPair, keySizeCode) == 1316);
static_assert(offsetof(CalythKeyPair, tokenFlag) == 1320);

static_assert(sizeof(CalythSymmetricKey) == 432);
static_assert(offsetof(CalythSymmetricKey, type) == 424);

static_assert(sizeof(CalythCertificate) == 3380);
static_assert(offsetof(CalythCertificate, der) == 20);
static_assert(offsetof(CalythCertificate, derLength) == 3092);
static_assert(offsetof(CalythCertificate, label) == 3228);

using CalythFileList = std::vector<std::pair<std::string, std::vector<unsigned char>>>;

// The library's functions have C names but return C++ objects: clang warns that C could not call
// them. Both sides are C++ built with the same toolchain, as said above.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
extern "C" {

// Library set-up; the provider calls calyth_init(0, nullptr, 2) and ignores the result.
int calyth_init(int mode, void* reserved, int logLevel);

// Serials of the connected tokens, in a stable order; empty when none is connected.
std::vector<std::string> calyth_getConnectedDeviceList(bool refresh, void* ctx);

// 0 when the token is connected and ready.
int calyth_initDevice(const char* serial, bool reset, void* ctx);

TokenInfo calyth_getTokenInfo(const char* serial, void* ctx);

// 0 when the PIN is right. Otherwise *attemptsLeft tells how many tries remain (0: locked);
// 48 is a system time mismatch and leaves *attemptsLeft at 0. userType is 1 for the user PIN.
int calyth_validatePassword(const char* serial, const char* pin, int userType, int* attemptsLeft, void* ctx);

std::vector<CalythKeyPair>& calyth_getKeyPairList(const char* serial, void* ctx);
std::vector<CalythSymmetricKey>& calyth_getAesKeyList(const char* serial, void* ctx);
std::vector<CalythCertificate>& calyth_getCertificateList(const char* serial, void* ctx);

// Parses a DER X.509 certificate; non-zero for anything that is not one.
int calyth_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& details,
                                 void* ctx);

// Makes a key pair. In: keySizeCode, keyUsage and label of *keyPair. Out: the whole record.
int calyth_generateKeyPair(const char* serial, const char* pin, CalythKeyPair* keyPair, void* ctx);

// Deletes a key pair; deleteCertificates also removes the certificates that share its object id.
int calyth_deleteKeyPair(const char* serial, const unsigned char* keyId, const char* pin,
                         bool deleteCertificates, void* ctx);

// Sets a key pair's label; when objectId is non-null and objectIdLength > 0 it also replaces the
// object identifier bytes.
int calyth_updateKeyPairDetails(const char* serial, const unsigned char* keyId, const char* pin,
                                const char* label, const unsigned char* objectId, int objectIdLength,
                                void* ctx);

// Stores a certificate. In: der, derLength, label. Out: handle, keyId and objectId of the key pair
// whose public key the certificate carries (zero when none).
int calyth_importCertificate(const char* serial, const char* pin, CalythCertificate* certificate, void* ctx);

// The files of `folder` whose names end in one of `extensions` (case-insensitive), sorted by file
// name, each with its DER bytes (PEM files converted; an unreadable file gives empty bytes).
CalythFileList calyth_getFilesWithExtensionsAndConvertDER(const std::string& folder,
                                                          const std::vector<std::string>& extensions,
                                                          void* ctx);

// Stores a symmetric key (see CalythSymmetricKey for who fills what).
int calyth_importAesKey(const char* serial, const char* pin, CalythSymmetricKey* key, void* ctx);

// Hashing on the token. hashCode 2 SHA-1, 3 SHA-256, 4 SHA-384, 5 SHA-512. The handle is owned by
// the library and stays valid for the life of the process; calyth_finalHash writes the digest and
// sets *length (in: room, out: digest length).
int calyth_initHash(const char* serial, int hashCode, void** hashHandle, void* ctx);
int calyth_updateHash(void* hashHandle, const unsigned char* data, int length, void* ctx);
int calyth_finalHash(void* hashHandle, unsigned char* digest, int* length, void* ctx);

// Signs a digest with a private key on the token. The digest length picks the hash (20 SHA-1,
// 32 SHA-256, 48 SHA-384, 64 SHA-512). RSA keys: PKCS #1 v1.5 with DigestInfo, or PSS (MGF1 with
// the same hash, salt length = hash length) when usePss. EC keys: r||s, each of the curve's size.
// *signatureLength: in the room of `signature`, out the signature length; too little room fails.
// tokenFlag is the key's CalythKeyPair::tokenFlag.
int calyth_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                    const unsigned char* digest, int digestLength, unsigned char* signature,
                    int* signatureLength, bool tokenFlag, void* ctx, bool usePss);

// Verifies a signature in software. keySizeCode is a hint in CalythKeyPair's numbering (the
// CryptoAPI side always passes 2); the public key's own form decides: DER SubjectPublicKeyInfo,
// DER RSAPublicKey, or a raw EC point 04||X||Y. Big-endian signature. 0 = valid.
int calyth_verifySignatureHash(unsigned int keySizeCode, const char* serial, const unsigned char* digest,
                               int digestLength, const unsigned char* publicKey, int publicKeyLength,
                               const unsigned char* signature, int signatureLength, void* ctx, bool usePss);

// RSA public-key encryption (types 7-10; padding 1 PKCS #1 v1.5 or 4 OAEP-SHA-1) with a DER public
// key. `output` has room for one modulus of the key; *outputLength is output only (callers pass 0)
// and receives the ciphertext length, always the modulus size.
int calyth_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* data, int dataLength,
                   unsigned char* output, int* outputLength, const unsigned char* publicKeyDer,
                   int publicKeyDerLength, void* ctx);

// RSA private-key decryption on the token; the library finds the padding (PKCS #1 v1.5, then OAEP).
int calyth_decrypt(const char* serial, const unsigned char* keyId, const char* pin, const unsigned char* data,
                   int dataLength, unsigned char** output, int* outputLength, bool tokenFlag, void* ctx);

// AES encryption with a given key (types 1/2 CBC, 5/6 ECB; the AES size follows keyLength 16/24/32),
// PKCS #7 padding. aad is reserved and may be null.
int calyth_encrypt_aes(const char* serial, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* data, int dataLength, unsigned char** output, int* outputLength,
                       bool tokenFlag, const unsigned char* iv, int ivLength, const unsigned char* aad,
                       int aadLength, void* ctx);

// AES key unwrap (RFC 3394) with a token AES key, named either by its 16-byte keyId or by its
// reference bytes (CalythSymmetricKey::reference, referenceLength).
int calyth_decrypt_aes(const char* serial, const unsigned char* keyReference, int keyReferenceLength,
                       const unsigned char* data, int dataLength, unsigned char** output, int* outputLength,
                       bool tokenFlag, const unsigned char* iv, int ivLength, void* ctx);

// AES decryption with a given key: CBC when an IV is given, ECB otherwise; PKCS #7 padding removed.
// *outputLength: in the room of `output`, out the plaintext length.
int calyth_decryptSymetric(const char* serial, const unsigned char* data, int dataLength,
                           unsigned char* output, int* outputLength, const unsigned char* iv, int ivLength,
                           const unsigned char* key, int keyLength, void* ctx);

// Raw ECDH shared secret (the X coordinate) of a token EC key with an uncompressed peer point.
int calyth_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                      const unsigned char* peerPoint, int peerPointLength, unsigned char** secret,
                      int* secretLength, void* ctx);

// Random bytes from the token's generator, or from the software source when useSoftware is true
// or the serial is empty.
int calyth_generateRamdomNumber(const char* serial, int length, unsigned char* output, bool useSoftware,
                                void* ctx);

}  // extern "C"
#ifdef __clang__
#pragma clang diagnostic pop
#endif
