#include "csp/algorithm_table.h"

const AlgorithmInfo kAlgorithmTable[kAlgorithmCount] = {
    {CALG_RC2, 40, 128, 128, 8, 0, "RC2", "RSA Data Security's RC2"},
    {CALG_RC4, 40, 128, 128, 8, 0, "RC4", "RSA Data Security's RC4"},
    {CALG_DES, 56, 56, 56, 0, 0, "DES", "Data Encryption Standard (DES)"},
    {CALG_3DES_112, 112, 112, 112, 0, 0, "3DES TWO KEY", "Two Key Triple DES"},
    {CALG_3DES, 168, 168, 168, 0, 0, "3DES", "Three Key Triple DES"},
    {CALG_SHA1, 160, 160, 160, 0, CRYPT_FLAG_SIGNING, "SHA-1", "Secure Hash Algorithm (SHA-1)"},
    {CALG_SHA_256, 256, 256, 256, 0, CRYPT_FLAG_SIGNING, "SHA-256", "Secure Hash Algorithm 256 (SHA-256)"},
    {CALG_SHA_384, 384, 384, 384, 0, CRYPT_FLAG_SIGNING, "SHA-384", "Secure Hash Algorithm 384 (SHA-384)"},
    {CALG_SHA_512, 512, 512, 512, 0, CRYPT_FLAG_SIGNING, "SHA-512", "Secure Hash Algorithm 512 (SHA-512)"},
    {CALG_SSL3_SHAMD5, 288, 288, 288, 0, 0, "SSL3 SHAMD5", "SSL3 SHAMD5"},
    {CALG_MAC, 0, 0, 0, 0, 0, "MAC", "Message Authentication Code"},
    {CALG_RSA_SIGN, 1024, 4096, 2048, 1024, CRYPT_FLAG_SIGNING | CRYPT_FLAG_IPSEC, "RSA-Sign",
     "RSA Signature"},
    {CALG_RSA_KEYX, 1024, 4096, 2048, 1024, CRYPT_FLAG_SIGNING | CRYPT_FLAG_IPSEC, "RSA-KeyX",
     "RSA Key Exchange"},
    {CALG_HMAC, 0, 0, 0, 0, 0, "HMAC", "Hugo's MAC (HMAC)"},
    {CALG_AES_128, 128, 128, 128, 0, 0, "AES-128", "Advanced Encryption Standard 128-bit"},
    {CALG_AES_192, 192, 192, 192, 0, 0, "AES-192", "Advanced Encryption Standard 192-bit"},
    {CALG_AES_256, 256, 256, 256, 0, 0, "AES-256", "Advanced Encryption Standard 256-bit"},
};
