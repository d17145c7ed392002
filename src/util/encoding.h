// Byte-level encoding helpers: hexadecimal text to bytes, DER lengths and TLVs, the DER
// SubjectPublicKeyInfo of an RSA key, and the device key-size code tables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Never fails: an optional 0x prefix is dropped, an odd length gets a leading '0', and any
// character that is not a hexadecimal digit counts as 0.
Bytes hexToBytes(const std::string& text);

Bytes encodeDerLength(size_t length);
Bytes encodeDerTlv(unsigned char tag, const Bytes& content);

// rsaEncryption SubjectPublicKeyInfo from big-endian hexadecimal modulus and exponent.
Bytes buildRsaSubjectPublicKeyInfo(const std::string& modulusHex, const std::string& exponentHex);

// A stored public key counts as DER when it is empty or starts with a SEQUENCE tag; otherwise it
// is a raw big-endian RSA modulus.
bool isDerPublicKey(const unsigned char* bytes, int length);

// The DER public key of a token key: stored DER as it is, a raw modulus wrapped with e = 65537.
Bytes derPublicKeyFromStored(const unsigned char* bytes, int length);

uint32_t keySizeCodeToBits(int32_t code);
// CNG algorithm name of a key: "RSA", "ECDSA_P256" ... or "ECDH_P256" ... for exchange keys.
const wchar_t* eccAlgorithmName(int32_t code, int32_t keyUsage);

// The modulus of a DER RSA public key (a SubjectPublicKeyInfo or a bare RSAPublicKey), big-endian
// and without the 0x00 sign byte in front. False when the bytes are neither.
bool rsaModulusFromDer(const unsigned char* der, int length, Bytes* modulus);
