// RSA encryption through the CNG side, with OpenSSL on the other end: KSPEncrypt output decrypted by
// OpenSSL with the same key (made by OpenSSL and imported into the token), and OpenSSL ciphertexts
// decrypted by KSPDecrypt on the token; PKCS #1 v1.5 and OAEP.
#include <windows.h>

#include <gtest/gtest.h>

#include "cng_support.h"
#include "support/scratch_files.h"
#include "support/test_support.h"

using namespace cngtest;

namespace {

using Encryption = CngSystemTest;

const Bytes kSecret = testsupport::bytesOf("session key material 0123456789");

struct Padding {
    const char* name;
    DWORD flags;
    const char* opensslOptions;
};
// OAEP with SHA-1 and MGF1-SHA-1 on both ends (OpenSSL's default for OAEP).
const Padding kPaddings[] = {{"PKCS #1 v1.5", NCRYPT_PAD_PKCS1_FLAG, ""},
                             {"OAEP", NCRYPT_PAD_OAEP_FLAG, " -pkeyopt rsa_padding_mode:oaep"}};

void* paddingInfo(DWORD flags, BCRYPT_OAEP_PADDING_INFO* oaep) {
    *oaep = {BCRYPT_SHA1_ALGORITHM, nullptr, 0};
    return flags == NCRYPT_PAD_OAEP_FLAG ? oaep : nullptr;
}

}  // namespace

TEST_F(Encryption, CngCiphertextsAreDecryptedByOpenSsl) {
    for (const char* bits : {"2048", "3072"}) {
        std::string keyFile = opensslKey(std::string("rsa") + bits + ".key",
                                         std::string("-algorithm RSA -pkeyopt rsa_keygen_bits:") + bits);
        NCRYPT_KEY_HANDLE key = openKey(importKeyFile(kSerial, keyFile, "exchange"));
        ASSERT_NE(key, 0u);
        for (const Padding& padding : kPaddings) {
            SCOPED_TRACE(std::string(bits) + " " + padding.name);
            BCRYPT_OAEP_PADDING_INFO oaep;
            Bytes ciphertext;
            ASSERT_EQ(client.encrypt(provider(), key, kSecret, paddingInfo(padding.flags, &oaep), &ciphertext,
                                     padding.flags),
                      0);
            EXPECT_EQ(ciphertext.size(), static_cast<size_t>(std::stoi(bits) / 8));
            testsupport::writeTemp("cng.bin", ciphertext);
            std::string output;
            ASSERT_EQ(testsupport::runOpenSsl("pkeyutl -decrypt -inkey " + testsupport::unixPath(keyFile) +
                                                  padding.opensslOptions + " -in " + unixTemp("cng.bin") +
                                                  " -out " + unixTemp("plain.bin"),
                                              &output),
                      0)
                << output;
            EXPECT_EQ(testsupport::readTemp("plain.bin"), kSecret);
        }
        freeKey(key);
    }
}

TEST_F(Encryption, OpenSslCiphertextsAreDecryptedOnTheToken) {
    std::string keyFile = opensslKey("own.key", "-algorithm RSA -pkeyopt rsa_keygen_bits:2048");
    std::string id = importKeyFile(kSerial, keyFile, "exchange");
    NCRYPT_KEY_HANDLE key = openKey(id);
    ASSERT_NE(key, 0u);
    std::string pem = tokenPublicKey(kSerial, id);
    testsupport::writeTemp("secret.bin", kSecret);
    for (const Padding& padding : kPaddings) {
        SCOPED_TRACE(padding.name);
        std::string output;
        ASSERT_EQ(testsupport::runOpenSsl("pkeyutl -encrypt -pubin -inkey " + testsupport::unixPath(pem) +
                                              padding.opensslOptions + " -in " + unixTemp("secret.bin") +
                                              " -out " + unixTemp("openssl.bin"),
                                          &output),
                  0)
            << output;
        BCRYPT_OAEP_PADDING_INFO oaep;
        Bytes plaintext;
        ASSERT_EQ(client.decrypt(provider(), key, testsupport::readTemp("openssl.bin"),
                                 paddingInfo(padding.flags, &oaep), &plaintext, padding.flags),
                  0);
        EXPECT_EQ(plaintext, kSecret);
    }
    freeKey(key);
}

TEST_F(Encryption, TokenKeysRoundTripThroughEncryptAndDecrypt) {
    std::string id = generateKey(kSerial, "rsa2048", "exchange");
    NCRYPT_KEY_HANDLE key = openKey(id);
    ASSERT_NE(key, 0u);
    for (const Padding& padding : kPaddings) {
        SCOPED_TRACE(padding.name);
        BCRYPT_OAEP_PADDING_INFO oaep;
        Bytes ciphertext, plaintext;
        ASSERT_EQ(client.encrypt(provider(), key, kSecret, paddingInfo(padding.flags, &oaep), &ciphertext,
                                 padding.flags),
                  0);
        ASSERT_EQ(client.decrypt(provider(), key, ciphertext, paddingInfo(padding.flags, &oaep), &plaintext,
                                 padding.flags),
                  0);
        EXPECT_EQ(plaintext, kSecret);
    }
    freeKey(key);
}
