// Signatures through the CNG side: KSPSignHash over digests computed by Windows, every signature
// checked by OpenSSL against the public key calyth-token exports; KSPVerifySignature against
// signatures OpenSSL made with a key that the token holds too (import-key).
#include <windows.h>

#include <gtest/gtest.h>

#include "cng_support.h"
#include "support/ecdsa_signature.h"
#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace cngtest;

namespace {

using Signing = CngSystemTest;
using Verification = CngSystemTest;

const Bytes kMessage = testsupport::bytesOf("a document signed through the key storage provider");

struct Hash {
    const wchar_t* bcrypt;  // BCrypt and NCrypt name
    const char* openssl;
};
const Hash kHashes[] = {{BCRYPT_SHA1_ALGORITHM, "sha1"},
                        {BCRYPT_SHA256_ALGORITHM, "sha256"},
                        {BCRYPT_SHA384_ALGORITHM, "sha384"},
                        {BCRYPT_SHA512_ALGORITHM, "sha512"}};

void flipOneBit(Bytes& signature) {
    signature[signature.size() / 2] ^= 0x10;
}

}  // namespace

TEST_F(Signing, Pkcs1OverEveryHashVerifiesWithOpenSsl) {
    std::string id = generateKey(kSerial, "rsa2048", "sign");
    std::string pem = tokenPublicKey(kSerial, id);
    NCRYPT_KEY_HANDLE key = openKey(id);
    ASSERT_NE(key, 0u);
    for (const Hash& hash : kHashes) {
        SCOPED_TRACE(hash.openssl);
        BCRYPT_PKCS1_PADDING_INFO padding = {hash.bcrypt};
        Bytes signature;
        ASSERT_EQ(client.signHash(provider(), key, &padding, nativeHash(hash.bcrypt, kMessage), &signature,
                                  BCRYPT_PAD_PKCS1),
                  0);
        EXPECT_EQ(signature.size(), 256u);
        EXPECT_TRUE(opensslVerifies(pem, hash.openssl, kMessage, signature));
    }
    freeKey(key);
}

TEST_F(Signing, PssOnFirmwareTwoPointOneVerifiesWithOpenSsl) {
    ASSERT_EQ(testsupport::calythToken(std::string("set-firmware --serial ") + kSerial + " --version 2.1.0"),
              0);
    std::string id = generateKey(kSerial, "rsa3072", "sign");
    std::string pem = tokenPublicKey(kSerial, id);
    NCRYPT_KEY_HANDLE key = openKey(id);
    ASSERT_NE(key, 0u);
    for (const Hash& hash : {kHashes[1], kHashes[3]}) {
        SCOPED_TRACE(hash.openssl);
        Bytes digest = nativeHash(hash.bcrypt, kMessage);
        BCRYPT_PSS_PADDING_INFO padding = {hash.bcrypt, static_cast<ULONG>(digest.size())};
        Bytes signature;
        ASSERT_EQ(client.signHash(provider(), key, &padding, digest, &signature, BCRYPT_PAD_PSS), 0);
        EXPECT_EQ(signature.size(), 384u);
        EXPECT_TRUE(opensslVerifies(
            pem, hash.openssl, kMessage, signature,
            "-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:" + std::to_string(digest.size())));
        EXPECT_EQ(client.verifySignature(provider(), key, &padding, digest, signature, BCRYPT_PAD_PSS), 0);
    }
    freeKey(key);
}

TEST_F(Signing, PssIsRefusedOnFirmwareOnePointNine) {
    ASSERT_EQ(testsupport::calythToken(std::string("set-firmware --serial ") + kSerial + " --version 1.9"),
              0);
    std::string id = generateKey(kSerial, "rsa2048", "sign");
    NCRYPT_KEY_HANDLE key = openKey(id);
    ASSERT_NE(key, 0u);
    Bytes digest = nativeHash(BCRYPT_SHA256_ALGORITHM, kMessage);
    BCRYPT_PSS_PADDING_INFO pss = {BCRYPT_SHA256_ALGORITHM, 32};
    Bytes signature;
    EXPECT_EQ(client.signHash(provider(), key, &pss, digest, &signature, BCRYPT_PAD_PSS),
              KSP_NTE_NOT_SUPPORTED);
    // PKCS #1 still works on the same token.
    BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
    ASSERT_EQ(client.signHash(provider(), key, &pkcs1, digest, &signature, BCRYPT_PAD_PKCS1), 0);
    EXPECT_TRUE(opensslVerifies(tokenPublicKey(kSerial, id), "sha256", kMessage, signature));
    freeKey(key);
}

TEST_F(Signing, EcdsaOnEveryCurveVerifiesWithOpenSsl) {
    struct Case {
        const char* type;
        Hash hash;
        size_t length;
    } cases[] = {{"p256", kHashes[1], 64}, {"p384", kHashes[2], 96}, {"p521", kHashes[3], 132}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        std::string id = generateKey(kSerial, c.type, "sign");
        NCRYPT_KEY_HANDLE key = openKey(id);
        ASSERT_NE(key, 0u);
        Bytes signature;
        ASSERT_EQ(
            client.signHash(provider(), key, nullptr, nativeHash(c.hash.bcrypt, kMessage), &signature, 0), 0);
        EXPECT_EQ(signature.size(), c.length) << "r||s";
        EXPECT_TRUE(opensslVerifies(tokenPublicKey(kSerial, id), c.hash.openssl, kMessage,
                                    testsupport::ecdsaSignatureToDer(signature)));
        freeKey(key);
    }
}

TEST_F(Verification, AcceptsRsaSignaturesOpenSslMadeAndRejectsAFlippedBit) {
    std::string keyFile = opensslKey("own-rsa.key", "-algorithm RSA -pkeyopt rsa_keygen_bits:2048");
    std::string id = importKeyFile(kSerial, keyFile, "sign");
    ASSERT_FALSE(id.empty());
    NCRYPT_KEY_HANDLE key = openKey(id);
    ASSERT_NE(key, 0u);
    testsupport::writeTemp("document.txt", kMessage);
    for (const Hash& hash : kHashes) {
        SCOPED_TRACE(hash.openssl);
        std::string output;
        ASSERT_EQ(testsupport::runOpenSsl(std::string("dgst -") + hash.openssl + " -sign " +
                                              testsupport::unixPath(keyFile) + " -out " +
                                              unixTemp("openssl.sig") + " " + unixTemp("document.txt"),
                                          &output),
                  0)
            << output;
        Bytes signature = testsupport::readTemp("openssl.sig");
        Bytes digest = nativeHash(hash.bcrypt, kMessage);
        BCRYPT_PKCS1_PADDING_INFO padding = {hash.bcrypt};
        EXPECT_EQ(client.verifySignature(provider(), key, &padding, digest, signature, BCRYPT_PAD_PKCS1), 0);
        flipOneBit(signature);
        EXPECT_EQ(client.verifySignature(provider(), key, &padding, digest, signature, BCRYPT_PAD_PKCS1),
                  KSP_NTE_BAD_SIGNATURE);
    }
    freeKey(key);
}

TEST_F(Verification, AcceptsPssAndEcdsaSignaturesOpenSslMade) {
    std::string rsaFile = opensslKey("own-pss.key", "-algorithm RSA -pkeyopt rsa_keygen_bits:2048");
    std::string ecFile = opensslKey("own-ec.key", "-algorithm EC -pkeyopt ec_paramgen_curve:P-384");
    NCRYPT_KEY_HANDLE rsa = openKey(importKeyFile(kSerial, rsaFile, "sign"));
    NCRYPT_KEY_HANDLE ec = openKey(importKeyFile(kSerial, ecFile, "sign"));
    ASSERT_NE(rsa, 0u);
    ASSERT_NE(ec, 0u);
    testsupport::writeTemp("document.txt", kMessage);
    Bytes digest = nativeHash(BCRYPT_SHA384_ALGORITHM, kMessage);

    ASSERT_EQ(
        testsupport::runOpenSsl(
            "dgst -sha384 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:48 -sign " +
            testsupport::unixPath(rsaFile) + " -out " + unixTemp("pss.sig") + " " + unixTemp("document.txt")),
        0);
    Bytes pss = testsupport::readTemp("pss.sig");
    BCRYPT_PSS_PADDING_INFO padding = {BCRYPT_SHA384_ALGORITHM, 48};
    EXPECT_EQ(client.verifySignature(provider(), rsa, &padding, digest, pss, BCRYPT_PAD_PSS), 0);
    flipOneBit(pss);
    EXPECT_EQ(client.verifySignature(provider(), rsa, &padding, digest, pss, BCRYPT_PAD_PSS),
              KSP_NTE_BAD_SIGNATURE);

    ASSERT_EQ(testsupport::runOpenSsl("dgst -sha384 -sign " + testsupport::unixPath(ecFile) + " -out " +
                                      unixTemp("ec.sig") + " " + unixTemp("document.txt")),
              0);
    Bytes rs = testsupport::ecdsaSignatureFromDer(testsupport::readTemp("ec.sig"), 48);
    ASSERT_EQ(rs.size(), 96u);
    EXPECT_EQ(client.verifySignature(provider(), ec, nullptr, digest, rs, 0), 0);
    flipOneBit(rs);
    EXPECT_EQ(client.verifySignature(provider(), ec, nullptr, digest, rs, 0), KSP_NTE_BAD_SIGNATURE);
    freeKey(rsa);
    freeKey(ec);
}

TEST_F(Signing, CalythSignWithCngWritesASignatureOpenSslVerifies) {
    std::string id = generateKey(kSerial, "rsa2048", "sign");
    std::string document = testsupport::writeTemp("document.txt", kMessage);
    std::string signature = testsupport::tempPath("document.cng.sig");
    std::string output;
    ASSERT_EQ(
        testsupport::runCommand("\"" + testsupport::programFolder() + "calyth-sign.exe\" --cng --container " +
                                    id + " --pin " + kPin + " --hash sha256 --in \"" + document +
                                    "\" --out \"" + signature + "\"",
                                &output),
        0)
        << output;
    EXPECT_TRUE(opensslVerifies(tokenPublicKey(kSerial, id), "sha256", kMessage,
                                testsupport::readTemp("document.cng.sig")));

    EXPECT_EQ(
        testsupport::runCommand("\"" + testsupport::programFolder() + "calyth-sign.exe\" --cng --container " +
                                    id + " --pin 0000 --in \"" + document + "\" --out \"" + signature + "\"",
                                &output),
        1)
        << output;
    EXPECT_NE(output.find("SmartCardPin"), std::string::npos) << output;
}
