// RSA key pairs made by Wine's own "Microsoft Enhanced Cryptographic Provider v1.0", used to check
// the provider's blobs and byte orders against the platform's. (Wine's Base provider refuses RSA
// keys above 512 bits, for generation and import alike.)
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>
#include <vector>

namespace keystest {

class WineRsaKey {
public:
    // A fresh exchange key pair of `bits` bits in a verify-only context.
    explicit WineRsaKey(DWORD bits);
    ~WineRsaKey();
    WineRsaKey(const WineRsaKey&) = delete;
    WineRsaKey& operator=(const WineRsaKey&) = delete;

    bool ok() const { return key_ != 0; }
    HCRYPTPROV provider() const { return provider_; }
    HCRYPTKEY key() const { return key_; }
    // CryptExportKey(PUBLICKEYBLOB) of the pair.
    std::vector<unsigned char> publicKeyBlob() const;
    // The modulus big-endian, as the token keeps it.
    std::vector<unsigned char> modulusBigEndian() const;

    // CryptEncrypt with the public key (PKCS #1 v1.5, or OAEP); CryptoAPI's little-endian output.
    std::vector<unsigned char> encrypt(const std::vector<unsigned char>& plain, bool oaep = false) const;
    // CryptDecrypt with the private key of a little-endian ciphertext; empty on failure.
    std::vector<unsigned char> decrypt(const std::vector<unsigned char>& cipherLittleEndian,
                                       bool oaep = false) const;

private:
    HCRYPTPROV provider_ = 0;
    HCRYPTKEY key_ = 0;
};

// Imports a PUBLICKEYBLOB into a Wine provider; 0 on failure.
HCRYPTKEY importIntoWine(HCRYPTPROV provider, const std::vector<unsigned char>& blob);

// The PUBLICKEYBLOB Wine makes of a DER SubjectPublicKeyInfo (CryptDecodeObjectEx +
// CryptImportPublicKeyInfo + CryptExportKey); empty when Wine does not accept the DER.
std::vector<unsigned char> wineBlobFromSubjectPublicKeyInfo(const unsigned char* der, size_t length);

}  // namespace keystest
