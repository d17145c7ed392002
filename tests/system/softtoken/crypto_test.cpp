// Key generation, signatures, RSA and AES work, key unwrapping, ECDH, hashing and random numbers,
// checked against OpenSSL and published test vectors.
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <vector>

#include "support/device_calls.h"
#include "support/ecdsa_signature.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

using KeyGenerationTest = TokenStoreTest;
using SignatureTest = TokenStoreTest;
using RsaCipherTest = TokenStoreTest;
using AesTest = TokenStoreTest;
using KeyUnwrapTest = TokenStoreTest;
using EcdhTest = TokenStoreTest;
using HashTest = TokenStoreTest;
using RandomTest = TokenStoreTest;

const Bytes kMessage = bytesOf("The quick brown fox jumps over the lazy dog");
const char* const kOpenSslHash[] = {"", "", "sha1", "sha256", "sha384", "sha512"};

int openssl(const std::string& arguments, std::string* output = nullptr) {
    std::string text;
    int code = testsupport::runOpenSsl(arguments, &text);
    if (output)
        *output = text;
    if (code != 0)
        ADD_FAILURE() << "openssl " << arguments << "\n" << text;
    return code;
}

CalythKeyPair generate(const std::string& serial, int32_t sizeCode, int32_t usage = 0, const char* label = "",
                       int* result = nullptr) {
    CalythKeyPair record;
    std::memset(&record, 0, sizeof record);
    record.keySizeCode = sizeCode;
    record.keyUsage = usage;
    std::strcpy(record.label, label);
    int code = calyth_generateKeyPair(serial.c_str(), "1234", &record, nullptr);
    if (result)
        *result = code;
    else
        EXPECT_EQ(code, 0) << "size code " << sizeCode;
    return record;
}

Bytes idOf(const CalythKeyPair& key) {
    return Bytes(key.keyId, key.keyId + 16);
}
Bytes publicOf(const CalythKeyPair& key) {
    return Bytes(key.publicKey, key.publicKey + key.publicKeyLength);
}

int sign(const std::string& serial, const Bytes& keyId, const Bytes& digest, Bytes& signature,
         bool pss = false, int room = 1024) {
    signature.assign(1024, 0);
    int length = room;
    int result =
        calyth_signHash(serial.c_str(), keyId.data(), "1234", digest.data(), static_cast<int>(digest.size()),
                        signature.data(), &length, true, nullptr, pss);
    signature.resize(result == 0 ? static_cast<size_t>(length) : 0);
    return result;
}

int verify(const Bytes& digest, const Bytes& publicKey, const Bytes& signature, bool pss = false,
           const char* serial = "") {
    return calyth_verifySignatureHash(2, serial, digest.data(), static_cast<int>(digest.size()),
                                      publicKey.data(), static_cast<int>(publicKey.size()), signature.data(),
                                      static_cast<int>(signature.size()), nullptr, pss);
}

// DER RSAPublicKey of a modulus with e = 65537.
Bytes rsaPublicKeyDer(const Bytes& modulus) {
    Bytes n = modulus;
    if (n[0] >= 0x80)
        n.insert(n.begin(), 0);
    Bytes body = encodeDerTlv(0x02, n);
    Bytes e = encodeDerTlv(0x02, {0x01, 0x00, 0x01});
    body.insert(body.end(), e.begin(), e.end());
    return encodeDerTlv(0x30, body);
}

}  // namespace

TEST_F(KeyGenerationTest, EveryKeySizeGetsAFullRecordThatTheListRepeats) {
    makeToken("SN1");
    struct Case {
        int32_t code;
        int32_t publicLength;
    } cases[] = {{1, 128}, {2, 256}, {3, 384}, {5, 65}, {6, 97}, {7, 133}};
    for (const Case& c : cases) {
        CalythKeyPair key = generate("SN1", c.code, 1, "signer");
        EXPECT_EQ(key.keySizeCode, c.code);
        EXPECT_EQ(key.publicKeyLength, c.publicLength) << c.code;
        if (c.code <= 4)
            EXPECT_GE(key.publicKey[0], 0x80) << "raw modulus with its top bit set";
        else
            EXPECT_EQ(key.publicKey[0], 0x04) << "uncompressed point";
        EXPECT_NE(hex(idOf(key)), std::string(32, '0'));
        EXPECT_GT(key.objectIdLength, 0);
        EXPECT_EQ(key.keyUsage, 1);
        EXPECT_EQ(key.tokenFlag, 1);
        EXPECT_STREQ(key.label, "signer");
        CalythKeyPair listed = keyRecord("SN1", idOf(key));
        EXPECT_EQ(std::memcmp(&listed, &key, sizeof key), 0) << c.code;
    }
    EXPECT_EQ(calyth_getKeyPairList("SN1", nullptr).size(), 6u);
}

TEST_F(KeyGenerationTest, ZeroCodesGiveRsa2048ForBothUsagesWithExponent65537) {
    makeToken("SN1");
    CalythKeyPair key = generate("SN1", 0, 0);
    EXPECT_EQ(key.keySizeCode, CALYTH_KEY_RSA_2048);
    EXPECT_EQ(key.keyUsage, CALYTH_USAGE_BOTH);
    EXPECT_EQ(key.publicKeyLength, 256);
    std::string text;
    exportPublicKey("SN1", hex(idOf(key)), file("k.pem"));
    openssl("pkey -pubin -in " + unixPath(file("k.pem")) + " -noout -text", &text);
    EXPECT_NE(text.find("Exponent: 65537"), std::string::npos) << text;
    EXPECT_NE(text.find("2048 bit"), std::string::npos) << text;
}

TEST_F(KeyGenerationTest, IdentifiersAreRandomAndCertificatesShareTheObjectId) {
    makeToken("SN1");
    CalythKeyPair a = generate("SN1", CALYTH_KEY_EC_P256);
    CalythKeyPair b = generate("SN1", CALYTH_KEY_EC_P256);
    EXPECT_NE(hex(idOf(a)), hex(idOf(b)));
    EXPECT_NE(hex(Bytes(a.objectId, a.objectId + a.objectIdLength)),
              hex(Bytes(b.objectId, b.objectId + b.objectIdLength)));
}

TEST_F(KeyGenerationTest, UnknownCodesAndMissingRecordAreRefused) {
    makeToken("SN1");
    int result = 0;
    generate("SN1", 8, 0, "", &result);
    EXPECT_NE(result, 0);
    generate("SN1", -1, 0, "", &result);
    EXPECT_NE(result, 0);
    generate("SN1", CALYTH_KEY_EC_P256, 4, "", &result);
    EXPECT_NE(result, 0);
    EXPECT_NE(calyth_generateKeyPair("SN1", "1234", nullptr, nullptr), 0);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
}

TEST_F(KeyGenerationTest, Rsa4096KeySignsForOpenSsl) {
    makeToken("SN1");
    CalythKeyPair key = generate("SN1", CALYTH_KEY_RSA_4096);
    ASSERT_EQ(key.publicKeyLength, 512);
    Bytes signature;
    ASSERT_EQ(sign("SN1", idOf(key), digest(CALYTH_HASH_SHA256, kMessage), signature), 0);
    EXPECT_EQ(signature.size(), 512u);
    writeFile(file("m.bin"), kMessage);
    writeFile(file("s.bin"), signature);
    exportPublicKey("SN1", hex(idOf(key)), file("k.pem"));
    EXPECT_EQ(openssl("dgst -sha256 -verify " + unixPath(file("k.pem")) + " -signature " +
                      unixPath(file("s.bin")) + " " + unixPath(file("m.bin"))),
              0);
}

TEST_F(KeyGenerationTest, KeyKeptWithADerPublicKeyStillWorks) {
    makeToken("SN1");
    Bytes rsa = unhex(makeKey("SN1", "rsa1024", "--pubform der"));
    Bytes ec = unhex(makeKey("SN1", "p384", "--pubform der"));
    for (const Bytes& id : {rsa, ec}) {
        CalythKeyPair key = keyRecord("SN1", id);
        ASSERT_EQ(key.publicKey[0], 0x30);
        writeFile(file("k.der"), publicOf(key));
        openssl("pkey -pubin -inform DER -in " + unixPath(file("k.der")) + " -noout");
        Bytes hash = digest(CALYTH_HASH_SHA384, kMessage), signature;
        ASSERT_EQ(sign("SN1", id, hash, signature), 0);
        EXPECT_EQ(verify(hash, publicOf(key), signature), 0);
    }
}

TEST_F(SignatureTest, RsaPkcs1SignaturesVerifyWithOpenSslForEveryHash) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "rsa2048"));
    exportPublicKey("SN1", hex(key), file("k.pem"));
    writeFile(file("m.bin"), kMessage);
    for (int code = CALYTH_HASH_SHA1; code <= CALYTH_HASH_SHA512; ++code) {
        Bytes signature, again;
        ASSERT_EQ(sign("SN1", key, digest(code, kMessage), signature), 0);
        EXPECT_EQ(signature.size(), 256u);
        ASSERT_EQ(sign("SN1", key, digest(code, kMessage), again), 0);
        EXPECT_EQ(signature, again) << "PKCS #1 v1.5 is deterministic";
        writeFile(file("s.bin"), signature);
        EXPECT_EQ(openssl(std::string("dgst -") + kOpenSslHash[code] + " -verify " + unixPath(file("k.pem")) +
                          " -signature " + unixPath(file("s.bin")) + " " + unixPath(file("m.bin"))),
                  0)
            << kOpenSslHash[code];
    }
}

TEST_F(SignatureTest, RsaPssSignaturesVerifyWithOpenSsl) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "rsa2048"));
    exportPublicKey("SN1", hex(key), file("k.pem"));
    writeFile(file("m.bin"), kMessage);
    for (int code : {CALYTH_HASH_SHA256, CALYTH_HASH_SHA512}) {
        Bytes hash = digest(code, kMessage), signature, again;
        ASSERT_EQ(sign("SN1", key, hash, signature, true), 0);
        ASSERT_EQ(sign("SN1", key, hash, again, true), 0);
        EXPECT_NE(signature, again) << "PSS uses a random salt";
        writeFile(file("s.bin"), signature);
        EXPECT_EQ(openssl(std::string("dgst -") + kOpenSslHash[code] +
                          " -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:" +
                          std::to_string(hash.size()) + " -verify " + unixPath(file("k.pem")) +
                          " -signature " + unixPath(file("s.bin")) + " " + unixPath(file("m.bin"))),
                  0);
        CalythKeyPair record = keyRecord("SN1", key);
        EXPECT_EQ(verify(hash, publicOf(record), signature, true), 0);
        EXPECT_NE(verify(hash, publicOf(record), signature, false), 0);
    }
}

TEST_F(SignatureTest, PssNeedsFirmwareTwoOrLater) {
    makeToken("SN1", "--firmware 1.9.9");
    Bytes key = unhex(makeKey("SN1", "rsa2048"));
    Bytes hash = digest(CALYTH_HASH_SHA256, kMessage), signature;
    EXPECT_NE(sign("SN1", key, hash, signature, true), 0) << "PSS on firmware 1.9.9";
    ASSERT_EQ(sign("SN1", key, hash, signature, false), 0) << "PKCS #1 on any firmware";
    Bytes publicKey = publicOf(keyRecord("SN1", key));
    for (const char* version : {"2.0", "2.0.0", "10.0.0"}) {
        ASSERT_EQ(calythToken(std::string("set-firmware --serial SN1 --version ") + version), 0);
        ASSERT_EQ(sign("SN1", key, hash, signature, true), 0) << version;
        EXPECT_EQ(verify(hash, publicKey, signature, true, "SN1"), 0) << version;
    }
    ASSERT_EQ(calythToken("set-firmware --serial SN1 --version 1.10"), 0);
    Bytes refused;
    EXPECT_NE(sign("SN1", key, hash, refused, true), 0) << "1.10 is below 2.0.0";
    EXPECT_NE(verify(hash, publicKey, signature, true, "SN1"), 0) << "PSS verification on the token";
    EXPECT_EQ(verify(hash, publicKey, signature, true), 0) << "without a token the firmware does not count";
}

TEST_F(SignatureTest, EcdsaSignaturesVerifyWithOpenSslOnEveryCurve) {
    makeToken("SN1");
    writeFile(file("m.bin"), kMessage);
    struct Case {
        const char* type;
        int hash;
        size_t length;
    } cases[] = {{"p256", CALYTH_HASH_SHA256, 64},
                 {"p384", CALYTH_HASH_SHA384, 96},
                 {"p521", CALYTH_HASH_SHA512, 132}};
    for (const Case& c : cases) {
        Bytes key = unhex(makeKey("SN1", c.type));
        exportPublicKey("SN1", hex(key), file("k.pem"));
        Bytes hash = digest(c.hash, kMessage), signature;
        ASSERT_EQ(sign("SN1", key, hash, signature, true), 0) << "PSS asked for an EC key is ignored";
        ASSERT_EQ(signature.size(), c.length);
        EXPECT_EQ(verify(hash, publicOf(keyRecord("SN1", key)), signature), 0);
        writeFile(file("s.der"), ecdsaSignatureToDer(signature));
        EXPECT_EQ(
            openssl(std::string("dgst -") + kOpenSslHash[c.hash] + " -verify " + unixPath(file("k.pem")) +
                    " -signature " + unixPath(file("s.der")) + " " + unixPath(file("m.bin"))),
            0)
            << c.type;
    }
}

TEST_F(SignatureTest, EcdsaDigestLongerThanTheCurveIsCutFromTheLeft) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256"));
    Bytes hash(64);
    for (size_t i = 0; i < hash.size(); ++i)
        hash[i] = static_cast<unsigned char>(i);  // starts with a zero byte
    Bytes signature;
    ASSERT_EQ(sign("SN1", key, hash, signature), 0);
    exportPublicKey("SN1", hex(key), file("k.pem"));
    writeFile(file("h.bin"), hash);
    writeFile(file("s.der"), ecdsaSignatureToDer(signature));
    EXPECT_EQ(openssl("pkeyutl -verify -pubin -inkey " + unixPath(file("k.pem")) + " -in " +
                      unixPath(file("h.bin")) + " -sigfile " + unixPath(file("s.der"))),
              0);
}

TEST_F(SignatureTest, ShortSignatureBufferFailsAndReportsTheLength) {
    makeToken("SN1");
    Bytes rsa = unhex(makeKey("SN1", "rsa2048"));
    Bytes ec = unhex(makeKey("SN1", "p521"));
    Bytes hash = digest(CALYTH_HASH_SHA256, kMessage), signature;
    Bytes buffer(300);
    int length = 255;
    EXPECT_NE(calyth_signHash("SN1", rsa.data(), "1234", hash.data(), 32, buffer.data(), &length, true,
                              nullptr, false),
              0);
    EXPECT_EQ(length, 256);
    length = 131;
    EXPECT_NE(calyth_signHash("SN1", ec.data(), "1234", hash.data(), 32, buffer.data(), &length, true,
                              nullptr, false),
              0);
    EXPECT_EQ(length, 132);
    EXPECT_NE(calyth_signHash("SN1", ec.data(), "1234", hash.data(), 32, buffer.data(), nullptr, true,
                              nullptr, false),
              0);
    EXPECT_EQ(sign("SN1", ec, hash, signature, false, 132), 0);
}

TEST_F(SignatureTest, UnknownKeyAndUnusableDigestLengthFail) {
    makeToken("SN1");
    Bytes rsa = unhex(makeKey("SN1", "rsa1024"));
    Bytes signature;
    EXPECT_NE(sign("SN1", Bytes(16, 0x77), digest(CALYTH_HASH_SHA256, kMessage), signature), 0);
    EXPECT_NE(sign("SN1", rsa, Bytes(17, 1), signature), 0);
    EXPECT_NE(sign("SN1", rsa, Bytes(), signature), 0);
}

TEST_F(SignatureTest, VerificationTakesEveryPublicKeyForm) {
    makeToken("SN1");
    Bytes rsa = unhex(makeKey("SN1", "rsa2048"));
    Bytes ec = unhex(makeKey("SN1", "p256"));
    Bytes hash = digest(CALYTH_HASH_SHA256, kMessage), rsaSignature, ecSignature;
    ASSERT_EQ(sign("SN1", rsa, hash, rsaSignature), 0);
    ASSERT_EQ(sign("SN1", ec, hash, ecSignature), 0);
    Bytes modulus = publicOf(keyRecord("SN1", rsa));
    Bytes point = publicOf(keyRecord("SN1", ec));
    ASSERT_EQ(calythToken("export-pubkey --der --serial SN1 --key " + hex(rsa) + " --out " + file("rsa.der")),
              0);
    ASSERT_EQ(calythToken("export-pubkey --der --serial SN1 --key " + hex(ec) + " --out " + file("ec.der")),
              0);

    EXPECT_EQ(verify(hash, readFile(file("rsa.der")), rsaSignature), 0) << "SubjectPublicKeyInfo";
    EXPECT_EQ(verify(hash, rsaPublicKeyDer(modulus), rsaSignature), 0) << "RSAPublicKey";
    EXPECT_EQ(verify(hash, point, ecSignature), 0) << "raw point";
    EXPECT_EQ(verify(hash, readFile(file("ec.der")), ecSignature), 0) << "EC SubjectPublicKeyInfo";
    EXPECT_EQ(verify(hash, modulus, rsaSignature, false, "SN1"), 0) << "naming the token";

    Bytes tampered = rsaSignature;
    tampered[100] ^= 1;
    EXPECT_NE(verify(hash, rsaPublicKeyDer(modulus), tampered), 0);
    Bytes otherHash = digest(CALYTH_HASH_SHA256, bytesOf("other"));
    EXPECT_NE(verify(otherHash, point, ecSignature), 0);
    EXPECT_NE(verify(hash, point, rsaSignature), 0);
    EXPECT_NE(verify(hash, Bytes{0x30, 0x03, 0x02, 0x01, 0x01}, rsaSignature), 0);
    EXPECT_NE(verify(hash, Bytes(), rsaSignature), 0);
    EXPECT_NE(verify(hash, point, ecSignature, false, "NOSUCH"), 0);
}

TEST_F(RsaCipherTest, EncryptionOutputDecryptsWithOpenSsl) {
    openssl("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + unixPath(file("k.pem")));
    openssl("pkey -in " + unixPath(file("k.pem")) + " -pubout -outform DER -out " + unixPath(file("k.der")));
    Bytes publicKey = readFile(file("k.der"));
    Bytes secret = bytesOf("session key bytes 0123456789abcdef");
    struct Case {
        PaddingMode padding;
        EncryptionType type;
        const char* option;
    } cases[] = {{PADDING_PKCS1, ENCRYPTION_RSA_2048, ""},
                 {PADDING_OAEP, ENCRYPTION_RSA_2048, " -pkeyopt rsa_padding_mode:oaep"},
                 {PADDING_PKCS1, ENCRYPTION_RSA_1024, ""}};
    for (const Case& c : cases) {
        Bytes out(256);
        int length = 0;
        ASSERT_EQ(
            calyth_encrypt(c.type, c.padding, secret.data(), static_cast<int>(secret.size()), out.data(),
                           &length, publicKey.data(), static_cast<int>(publicKey.size()), nullptr),
            0);
        ASSERT_EQ(length, 256);
        writeFile(file("c.bin"), out);
        openssl("pkeyutl -decrypt -inkey " + unixPath(file("k.pem")) + c.option + " -in " +
                unixPath(file("c.bin")) + " -out " + unixPath(file("p.bin")));
        EXPECT_EQ(readFile(file("p.bin")), secret) << c.padding;
    }
}

TEST_F(RsaCipherTest, EncryptionRefusesBadArguments) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "rsa1024"));
    Bytes ec = unhex(makeKey("SN1", "p256"));
    Bytes modulus = publicOf(keyRecord("SN1", key));
    Bytes data = bytesOf("abc"), out(128);
    int length = 5;
    EXPECT_EQ(calyth_encrypt(ENCRYPTION_RSA_1024, PADDING_PKCS1, data.data(), 3, out.data(), &length,
                             modulus.data(), static_cast<int>(modulus.size()), nullptr),
              0);
    EXPECT_EQ(length, 128) << "the length is output only";
    length = 0;
    EXPECT_NE(calyth_encrypt(ENCRYPTION_RSA_1024, PADDING_PKCS1, data.data(), 3, nullptr, &length,
                             modulus.data(), static_cast<int>(modulus.size()), nullptr),
              0);
    EXPECT_EQ(length, 128);
    EXPECT_NE(calyth_encrypt(ENCRYPTION_AES_128_CBC, PADDING_PKCS1, data.data(), 3, out.data(), &length,
                             modulus.data(), static_cast<int>(modulus.size()), nullptr),
              0);
    EXPECT_NE(calyth_encrypt(ENCRYPTION_RSA_1024, PADDING_PSS, data.data(), 3, out.data(), &length,
                             modulus.data(), static_cast<int>(modulus.size()), nullptr),
              0);
    Bytes point = publicOf(keyRecord("SN1", ec));
    EXPECT_NE(calyth_encrypt(ENCRYPTION_RSA_1024, PADDING_PKCS1, data.data(), 3, out.data(), &length,
                             point.data(), static_cast<int>(point.size()), nullptr),
              0);
    Bytes tooLong(120, 'x');
    EXPECT_NE(calyth_encrypt(ENCRYPTION_RSA_1024, PADDING_OAEP, tooLong.data(), 120, out.data(), &length,
                             modulus.data(), static_cast<int>(modulus.size()), nullptr),
              0);
}

TEST_F(RsaCipherTest, TokenDecryptsOpenSslCiphertextsFindingThePadding) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "rsa2048", "--usage exchange"));
    exportPublicKey("SN1", hex(key), file("k.pem"));
    Bytes secret = bytesOf("0123456789ABCDEF0123456789ABCDEF");
    writeFile(file("p.bin"), secret);
    for (const char* option : {"", " -pkeyopt rsa_padding_mode:oaep"}) {
        openssl("pkeyutl -encrypt -pubin -inkey " + unixPath(file("k.pem")) + option + " -in " +
                unixPath(file("p.bin")) + " -out " + unixPath(file("c.bin")));
        Bytes cipher = readFile(file("c.bin"));
        unsigned char* out = nullptr;
        int length = 0;
        ASSERT_EQ(calyth_decrypt("SN1", key.data(), "1234", cipher.data(), static_cast<int>(cipher.size()),
                                 &out, &length, true, nullptr),
                  0)
            << option;
        EXPECT_EQ(Bytes(out, out + length), secret) << option;
        std::free(out);
    }
}

TEST_F(RsaCipherTest, RoundTripAndGarbageThroughTheToken) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "rsa1024"));
    Bytes ec = unhex(makeKey("SN1", "p256"));
    Bytes modulus = publicOf(keyRecord("SN1", key));
    for (PaddingMode padding : {PADDING_PKCS1, PADDING_OAEP}) {
        for (const Bytes& secret : {bytesOf("k"), bytesOf("a longer secret of forty-two bytes in all!")}) {
            Bytes cipher(128);
            int length = 0;
            ASSERT_EQ(calyth_encrypt(ENCRYPTION_RSA_1024, padding, secret.data(),
                                     static_cast<int>(secret.size()), cipher.data(), &length, modulus.data(),
                                     static_cast<int>(modulus.size()), nullptr),
                      0);
            unsigned char* out = nullptr;
            int plainLength = -1;
            ASSERT_EQ(calyth_decrypt("SN1", key.data(), "1234", cipher.data(), length, &out, &plainLength,
                                     true, nullptr),
                      0);
            EXPECT_EQ(Bytes(out, out + plainLength), secret);
            std::free(out);
        }
    }
    Bytes cipher(128);
    int cipherLength = 0;
    EXPECT_NE(calyth_encrypt(ENCRYPTION_RSA_1024, PADDING_PKCS1, nullptr, 0, cipher.data(), &cipherLength,
                             modulus.data(), static_cast<int>(modulus.size()), nullptr),
              0)
        << "an empty message is refused";
    Bytes garbage(128, 0x42);
    unsigned char* out = nullptr;
    int length = 0;
    EXPECT_NE(calyth_decrypt("SN1", key.data(), "1234", garbage.data(), 128, &out, &length, true, nullptr),
              0);
    Bytes tooLong(129, 0x01);
    EXPECT_NE(calyth_decrypt("SN1", key.data(), "1234", tooLong.data(), 129, &out, &length, true, nullptr),
              0);
    EXPECT_NE(calyth_decrypt("SN1", ec.data(), "1234", garbage.data(), 64, &out, &length, true, nullptr), 0);
    EXPECT_NE(calyth_decrypt("SN1", key.data(), "1234", garbage.data(), 128, nullptr, &length, true, nullptr),
              0);
}

TEST_F(AesTest, EncryptionMatchesOpenSsl) {
    const Bytes iv = unhex("000102030405060708090A0B0C0D0E0F");
    const Bytes plain = bytesOf("twenty bytes of text");
    writeFile(file("p.bin"), plain);
    struct Case {
        EncryptionType type;
        size_t keyLength;
        const char* cipher;
        bool cbc;
    } cases[] = {{ENCRYPTION_AES_128_CBC, 16, "aes-128-cbc", true},
                 {ENCRYPTION_AES_256_CBC, 32, "aes-256-cbc", true},
                 {ENCRYPTION_AES_128_CBC, 24, "aes-192-cbc", true},
                 {ENCRYPTION_AES_128_ECB, 16, "aes-128-ecb", false},
                 {ENCRYPTION_AES_256_ECB, 32, "aes-256-ecb", false}};
    for (const Case& c : cases) {
        Bytes key(c.keyLength);
        for (size_t i = 0; i < key.size(); ++i)
            key[i] = static_cast<unsigned char>(0xA0 + i);
        unsigned char* out = nullptr;
        int length = 0;
        ASSERT_EQ(calyth_encrypt_aes("", c.type, key.data(), static_cast<int>(key.size()), plain.data(),
                                     static_cast<int>(plain.size()), &out, &length, false,
                                     c.cbc ? iv.data() : nullptr, c.cbc ? 16 : 0, nullptr, 0, nullptr),
                  0)
            << c.cipher;
        Bytes cipher(out, out + length);
        std::free(out);
        EXPECT_EQ(cipher.size(), 32u);
        openssl(std::string("enc -") + c.cipher + " -K " + hex(key) + (c.cbc ? " -iv " + hex(iv) : "") +
                " -in " + unixPath(file("p.bin")) + " -out " + unixPath(file("c.bin")));
        EXPECT_EQ(hex(cipher), hex(readFile(file("c.bin")))) << c.cipher;
    }
}

TEST_F(AesTest, DecryptionUndoesOpenSslEncryption) {
    const Bytes key = unhex("2B7E151628AED2A6ABF7158809CF4F3C");
    const Bytes iv = unhex("F0F1F2F3F4F5F6F7F8F9FAFBFCFDFEFF");
    const Bytes plain = bytesOf("exactly sixteen!");  // a whole block: a full padding block follows
    writeFile(file("p.bin"), plain);
    for (bool cbc : {true, false}) {
        openssl(std::string("enc -aes-128-") + (cbc ? "cbc -iv " + hex(iv) : "ecb") + " -K " + hex(key) +
                " -in " + unixPath(file("p.bin")) + " -out " + unixPath(file("c.bin")));
        Bytes cipher = readFile(file("c.bin"));
        ASSERT_EQ(cipher.size(), 32u);
        Bytes out(32);
        int length = 32;
        ASSERT_EQ(calyth_decryptSymetric("", cipher.data(), 32, out.data(), &length,
                                         cbc ? iv.data() : nullptr, cbc ? 16 : 0, key.data(), 16, nullptr),
                  0);
        EXPECT_EQ(Bytes(out.begin(), out.begin() + length), plain) << cbc;
    }
}

TEST_F(AesTest, BadPaddingLengthsAndModesFail) {
    makeToken("SN1");
    const Bytes key = unhex("2B7E151628AED2A6ABF7158809CF4F3C");
    writeFile(file("p.bin"), Bytes(16, 0x00));  // decrypts to a last byte of 0: no valid padding
    openssl("enc -aes-128-ecb -nopad -K " + hex(key) + " -in " + unixPath(file("p.bin")) + " -out " +
            unixPath(file("c.bin")));
    Bytes cipher = readFile(file("c.bin"));
    Bytes out(64);
    int length = 64;
    EXPECT_NE(calyth_decryptSymetric("", cipher.data(), 16, out.data(), &length, nullptr, 0, key.data(), 16,
                                     nullptr),
              0);
    EXPECT_NE(calyth_decryptSymetric("", cipher.data(), 15, out.data(), &length, nullptr, 0, key.data(), 16,
                                     nullptr),
              0);
    EXPECT_NE(calyth_decryptSymetric("", cipher.data(), 16, out.data(), &length, nullptr, 0, key.data(), 20,
                                     nullptr),
              0);

    Bytes plain = bytesOf("abc");
    unsigned char* result = nullptr;
    int resultLength = 0;
    EXPECT_NE(calyth_encrypt_aes("", ENCRYPTION_AES_128_CBC, key.data(), 16, plain.data(), 3, &result,
                                 &resultLength, false, nullptr, 0, nullptr, 0, nullptr),
              0)
        << "CBC without an IV";
    EXPECT_NE(calyth_encrypt_aes("", ENCRYPTION_3DES, key.data(), 16, plain.data(), 3, &result, &resultLength,
                                 false, nullptr, 0, nullptr, 0, nullptr),
              0);
    EXPECT_NE(calyth_encrypt_aes("", ENCRYPTION_AES_128_ECB, key.data(), 20, plain.data(), 3, &result,
                                 &resultLength, false, nullptr, 0, nullptr, 0, nullptr),
              0);
    ASSERT_EQ(calyth_encrypt_aes("SN1", ENCRYPTION_AES_128_ECB, key.data(), 16, plain.data(), 3, &result,
                                 &resultLength, false, nullptr, 0, nullptr, 0, nullptr),
              0);
    Bytes encrypted(result, result + resultLength);
    std::free(result);
    length = 2;
    EXPECT_NE(calyth_decryptSymetric("SN1", encrypted.data(), 16, out.data(), &length, nullptr, 0, key.data(),
                                     16, nullptr),
              0);
    EXPECT_EQ(length, 3) << "too little room reports the length";
    length = 64;
    EXPECT_EQ(calyth_decryptSymetric("SN1", encrypted.data(), 16, out.data(), &length, nullptr, 0, key.data(),
                                     16, nullptr),
              0);
    ASSERT_EQ(calythToken("unplug --serial SN1"), 0);
    EXPECT_NE(calyth_decryptSymetric("SN1", encrypted.data(), 16, out.data(), &length, nullptr, 0, key.data(),
                                     16, nullptr),
              0);
    EXPECT_NE(calyth_encrypt_aes("SN1", ENCRYPTION_AES_128_ECB, key.data(), 16, plain.data(), 3, &result,
                                 &resultLength, false, nullptr, 0, nullptr, 0, nullptr),
              0);
}

TEST_F(KeyUnwrapTest, ImportedKeyIsListedWithoutItsKeyBytes) {
    makeToken("SN1");
    CalythSymmetricKey key;
    std::memset(&key, 0, sizeof key);
    Bytes kek = unhex("000102030405060708090A0B0C0D0E0F");
    std::memcpy(key.keyBytes, kek.data(), 16);
    key.keyLength = 16;
    key.type = CALYTH_SYMMETRIC_AES_128;
    ASSERT_EQ(calyth_importAesKey("SN1", "1234", &key, nullptr), 0);
    EXPECT_NE(hex(Bytes(key.keyId, key.keyId + 16)), std::string(32, '0'));
    EXPECT_GT(key.referenceLength, 0);
    EXPECT_GT(std::strlen(key.label), 0u);
    EXPECT_EQ(key.tokenFlag, 1);
    std::vector<CalythSymmetricKey> listed = calyth_getAesKeyList("SN1", nullptr);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(hex(Bytes(listed[0].keyId, listed[0].keyId + 16)), hex(Bytes(key.keyId, key.keyId + 16)));
    EXPECT_EQ(listed[0].type, CALYTH_SYMMETRIC_AES_128);
    EXPECT_EQ(listed[0].keyLength, 16);
    EXPECT_EQ(hex(Bytes(listed[0].keyBytes, listed[0].keyBytes + 16)), std::string(32, '0'));

    CalythSymmetricKey des = key;
    des.keyLength = 24;
    des.type = CALYTH_SYMMETRIC_3DES;
    EXPECT_EQ(calyth_importAesKey("SN1", "1234", &des, nullptr), 0);
    CalythSymmetricKey bad = key;
    bad.keyLength = 20;
    EXPECT_NE(calyth_importAesKey("SN1", "1234", &bad, nullptr), 0);
    bad.keyLength = 16;
    bad.type = 9;
    EXPECT_NE(calyth_importAesKey("SN1", "1234", &bad, nullptr), 0);
    EXPECT_NE(calyth_importAesKey("SN1", "1234", nullptr, nullptr), 0);
    EXPECT_EQ(calyth_getAesKeyList("SN1", nullptr).size(), 2u);
}

TEST_F(KeyUnwrapTest, UnwrapsTheRfc3394VectorsByReferenceOrById) {
    makeToken("SN1");
    struct Case {
        const char* kek;
        const char* wrapped;
        int32_t type;
    } cases[] = {{"000102030405060708090A0B0C0D0E0F", "1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5", 8},
                 {"000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F",
                  "64E8C3F9CE0F5BA263E9777905818A2A93C8191E7D6E8AE7", 10}};
    std::vector<CalythSymmetricKey> keks;
    for (const Case& c : cases) {
        CalythSymmetricKey key;
        std::memset(&key, 0, sizeof key);
        Bytes kek = unhex(c.kek);
        std::memcpy(key.keyBytes, kek.data(), kek.size());
        key.keyLength = static_cast<int32_t>(kek.size());
        key.type = c.type;
        ASSERT_EQ(calyth_importAesKey("SN1", "1234", &key, nullptr), 0);
        keks.push_back(key);
    }
    for (size_t i = 0; i < keks.size(); ++i) {
        Bytes wrapped = unhex(cases[i].wrapped);
        for (bool byReference : {true, false}) {
            unsigned char* out = nullptr;
            int length = 0;
            const unsigned char* name = byReference ? keks[i].reference : keks[i].keyId;
            int nameLength = byReference ? keks[i].referenceLength : 16;
            ASSERT_EQ(
                calyth_decrypt_aes("SN1", name, nameLength, wrapped.data(), static_cast<int>(wrapped.size()),
                                   &out, &length, true, nullptr, 0, nullptr),
                0);
            EXPECT_EQ(hex(Bytes(out, out + length)), "00112233445566778899AABBCCDDEEFF");
            std::free(out);
        }
        unsigned char* out = nullptr;
        int length = 0;
        const CalythSymmetricKey& other = keks[1 - i];
        EXPECT_NE(
            calyth_decrypt_aes("SN1", other.reference, other.referenceLength, wrapped.data(),
                               static_cast<int>(wrapped.size()), &out, &length, true, nullptr, 0, nullptr),
            0);
        Bytes tampered = wrapped;
        tampered[5] ^= 0x80;
        EXPECT_NE(
            calyth_decrypt_aes("SN1", keks[i].reference, keks[i].referenceLength, tampered.data(),
                               static_cast<int>(tampered.size()), &out, &length, true, nullptr, 0, nullptr),
            0);
        Bytes unknown(16, 0xEE);
        EXPECT_NE(
            calyth_decrypt_aes("SN1", unknown.data(), 16, wrapped.data(), static_cast<int>(wrapped.size()),
                               &out, &length, true, nullptr, 0, nullptr),
            0);
    }
}

TEST_F(EcdhTest, SharedSecretMatchesOpenSsl) {
    makeToken("SN1");
    struct Case {
        const char* type;
        const char* curve;
        size_t pointLength;
    } cases[] = {{"p256", "P-256", 65}, {"p384", "P-384", 97}, {"p521", "P-521", 133}};
    for (const Case& c : cases) {
        Bytes key = unhex(makeKey("SN1", c.type, "--usage exchange"));
        exportPublicKey("SN1", hex(key), file("token.pem"));
        openssl(std::string("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:") + c.curve + " -out " +
                unixPath(file("peer.pem")));
        openssl("pkey -in " + unixPath(file("peer.pem")) + " -pubout -outform DER -out " +
                unixPath(file("peer.der")));
        Bytes peerDer = readFile(file("peer.der"));
        Bytes peer(peerDer.end() - static_cast<long>(c.pointLength), peerDer.end());
        unsigned char* secret = nullptr;
        int length = 0;
        ASSERT_EQ(calyth_ecdhDerive("SN1", key.data(), "1234", peer.data(), static_cast<int>(peer.size()),
                                    &secret, &length, nullptr),
                  0)
            << c.type;
        Bytes ours(secret, secret + length);
        std::free(secret);
        EXPECT_EQ(ours.size(), (c.pointLength - 1) / 2);
        openssl("pkeyutl -derive -inkey " + unixPath(file("peer.pem")) + " -peerkey " +
                unixPath(file("token.pem")) + " -out " + unixPath(file("z.bin")));
        EXPECT_EQ(hex(ours), hex(readFile(file("z.bin")))) << c.type;
    }
}

TEST_F(EcdhTest, BadPeerPointsAndNonEcKeysFail) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256"));
    Bytes rsa = unhex(makeKey("SN1", "rsa1024"));
    Bytes point = publicOf(keyRecord("SN1", unhex(makeKey("SN1", "p256"))));
    unsigned char* secret = nullptr;
    int length = 0;
    ASSERT_EQ(calyth_ecdhDerive("SN1", key.data(), "1234", point.data(), 65, &secret, &length, nullptr), 0);
    std::free(secret);
    Bytes compressed(point.begin(), point.begin() + 33);
    compressed[0] = 0x02 | (point[64] & 1);
    EXPECT_NE(calyth_ecdhDerive("SN1", key.data(), "1234", compressed.data(), 33, &secret, &length, nullptr),
              0);
    Bytes offCurve = point;
    offCurve[64] ^= 0x01;
    EXPECT_NE(calyth_ecdhDerive("SN1", key.data(), "1234", offCurve.data(), 65, &secret, &length, nullptr),
              0);
    Bytes p384 = publicOf(keyRecord("SN1", unhex(makeKey("SN1", "p384"))));
    EXPECT_NE(calyth_ecdhDerive("SN1", key.data(), "1234", p384.data(), 97, &secret, &length, nullptr), 0);
    EXPECT_NE(calyth_ecdhDerive("SN1", rsa.data(), "1234", point.data(), 65, &secret, &length, nullptr), 0);
    EXPECT_NE(calyth_ecdhDerive("SN1", key.data(), "1234", point.data(), 65, nullptr, &length, nullptr), 0);
}

TEST_F(HashTest, DigestsMatchThePublishedValues) {
    makeToken("SN1");
    const char* const expected[] = {
        "",
        "",
        "A9993E364706816ABA3E25717850C26C9CD0D89D",
        "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD",
        "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BAECA134C825A7",
        "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23A3FEEBBD454D"
        "4423643CE80E"
        "2A9AC94FA54CA49F"};
    for (const char* serial : {"", "SN1"}) {
        for (int code = CALYTH_HASH_SHA1; code <= CALYTH_HASH_SHA512; ++code) {
            void* handle = nullptr;
            ASSERT_EQ(calyth_initHash(serial, code, &handle, nullptr), 0);
            const unsigned char a = 'a', bc[2] = {'b', 'c'};
            ASSERT_EQ(calyth_updateHash(handle, &a, 1, nullptr), 0);
            ASSERT_EQ(calyth_updateHash(handle, nullptr, 0, nullptr), 0);
            ASSERT_EQ(calyth_updateHash(handle, bc, 2, nullptr), 0);
            Bytes out(64);
            int length = 64;
            ASSERT_EQ(calyth_finalHash(handle, out.data(), &length, nullptr), 0);
            EXPECT_EQ(hex(Bytes(out.begin(), out.begin() + length)), expected[code])
                << code << " on '" << serial << "'";
        }
    }
    EXPECT_EQ(hex(digest(CALYTH_HASH_SHA256, Bytes())),
              "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
}

TEST_F(HashTest, UnknownCodesAndHandlesAreRefused) {
    void* handle = nullptr;
    EXPECT_NE(calyth_initHash("", 1, &handle, nullptr), 0);
    EXPECT_NE(calyth_initHash("", 6, &handle, nullptr), 0);
    EXPECT_NE(calyth_initHash("", CALYTH_HASH_SHA256, nullptr, nullptr), 0);
    EXPECT_NE(calyth_initHash("NOSUCH", CALYTH_HASH_SHA256, &handle, nullptr), 0);
    Bytes out(64);
    int length = 64;
    unsigned char byte = 0;
    EXPECT_NE(calyth_updateHash(nullptr, &byte, 1, nullptr), 0);
    EXPECT_NE(calyth_updateHash(reinterpret_cast<void*>(0x1234), &byte, 1, nullptr), 0);
    EXPECT_NE(calyth_finalHash(&byte, out.data(), &length, nullptr), 0);
    ASSERT_EQ(calyth_initHash("", CALYTH_HASH_SHA1, &handle, nullptr), 0);
    EXPECT_NE(calyth_updateHash(handle, &byte, -1, nullptr), 0);
    ASSERT_EQ(calyth_finalHash(handle, out.data(), &length, nullptr), 0);
    EXPECT_NE(calyth_finalHash(handle, out.data(), &length, nullptr), 0) << "a finished hash";
    EXPECT_NE(calyth_updateHash(handle, &byte, 1, nullptr), 0) << "a finished hash";
}

TEST_F(HashTest, TooLittleRoomReportsTheLengthAndKeepsTheHash) {
    void* handle = nullptr;
    ASSERT_EQ(calyth_initHash("", CALYTH_HASH_SHA384, &handle, nullptr), 0);
    const unsigned char abc[3] = {'a', 'b', 'c'};
    ASSERT_EQ(calyth_updateHash(handle, abc, 3, nullptr), 0);
    Bytes out(64);
    int length = 20;
    EXPECT_NE(calyth_finalHash(handle, out.data(), &length, nullptr), 0);
    EXPECT_EQ(length, 48);
    ASSERT_EQ(calyth_finalHash(handle, out.data(), &length, nullptr), 0);
    EXPECT_EQ(hex(Bytes(out.begin(), out.begin() + 4)), "CB00753F");
}

TEST_F(HashTest, HandlesThatAreNeverFinishedDoNotExhaustTheLibrary) {
    void* first = nullptr;
    ASSERT_EQ(calyth_initHash("", CALYTH_HASH_SHA512, &first, nullptr), 0);
    void* last = nullptr;
    for (int i = 0; i < 4200; ++i)
        ASSERT_EQ(calyth_initHash("", CALYTH_HASH_SHA512, &last, nullptr), 0) << i;
    unsigned char byte = 1;
    EXPECT_NE(calyth_updateHash(first, &byte, 1, nullptr), 0) << "the oldest unfinished hash was dropped";
    EXPECT_EQ(calyth_updateHash(last, &byte, 1, nullptr), 0);
}

TEST_F(RandomTest, SoftwareSourceServesAnEmptySerial) {
    Bytes a(32), b(32);
    ASSERT_EQ(calyth_generateRamdomNumber("", 32, a.data(), false, nullptr), 0);
    ASSERT_EQ(calyth_generateRamdomNumber(nullptr, 32, b.data(), false, nullptr), 0);
    EXPECT_NE(a, b);
    EXPECT_NE(a, Bytes(32, 0));
    EXPECT_EQ(calyth_generateRamdomNumber("", 0, a.data(), true, nullptr), 0);
    EXPECT_NE(calyth_generateRamdomNumber("", 8, nullptr, true, nullptr), 0);
    EXPECT_NE(calyth_generateRamdomNumber("", -1, a.data(), true, nullptr), 0);
}

TEST_F(RandomTest, TokenSourceNeedsTheTokenAndSoftwareSourceDoesNot) {
    makeToken("SN1");
    Bytes a(16);
    EXPECT_EQ(calyth_generateRamdomNumber("SN1", 16, a.data(), false, nullptr), 0);
    EXPECT_NE(calyth_generateRamdomNumber("NOSUCH", 16, a.data(), false, nullptr), 0);
    EXPECT_EQ(calyth_generateRamdomNumber("NOSUCH", 16, a.data(), true, nullptr), 0);
    std::set<std::string> seen;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(calyth_generateRamdomNumber("SN1", 16, a.data(), false, nullptr), 0);
        seen.insert(hex(a));
    }
    EXPECT_EQ(seen.size(), 20u);
}

namespace {

// The function that `module` calls when it calls `name` of `library` (its import slot).
FARPROC importedFunction(HMODULE module, const char* library, const char* name) {
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* headers =
        reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* entry = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress); entry->Name;
         ++entry) {
        if (_stricmp(reinterpret_cast<const char*>(base + entry->Name), library) != 0)
            continue;
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + entry->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + entry->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(byName->Name), name) == 0)
                return reinterpret_cast<FARPROC>(slots->u1.Function);
        }
    }
    return nullptr;
}

}  // namespace

// libgcrypt's entropy poll asks the system for every information class, the list of every handle
// of every process among them, and Wine 8's server reads past a handle table answering that one.
// The library's own lookup hands libgcrypt a NtQuerySystemInformation that refuses the two
// handle-list classes and answers the rest; every other lookup is the system's.
TEST_F(RandomTest, EntropyPollGetsNoHandleListsFromTheSystem) {
    Bytes random(32);
    ASSERT_EQ(calyth_generateRamdomNumber("", 32, random.data(), false, nullptr), 0);
    HMODULE library = GetModuleHandleA("CalythDSCLibrary.dll");
    ASSERT_NE(library, nullptr);
    using Lookup = FARPROC(WINAPI*)(HMODULE, LPCSTR);
    auto lookup = reinterpret_cast<Lookup>(
        reinterpret_cast<void*>(importedFunction(library, "KERNEL32.dll", "GetProcAddress")));
    ASSERT_NE(lookup, nullptr);
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    HMODULE kernel32 = GetModuleHandleA("kernel32.dll");
    FARPROC system = GetProcAddress(ntdll, "NtQuerySystemInformation");
    FARPROC handedOut = lookup(ntdll, "NtQuerySystemInformation");
    ASSERT_NE(handedOut, nullptr);
    EXPECT_NE(handedOut, system);
    EXPECT_EQ(lookup(kernel32, "GetTickCount"), GetProcAddress(kernel32, "GetTickCount"));
    EXPECT_EQ(lookup(ntdll, "NtQueryInformationProcess"), GetProcAddress(ntdll, "NtQueryInformationProcess"));

    using Query = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
    auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(handedOut));
    std::vector<unsigned char> buffer(1 << 20);
    ULONG length = 12345;
    EXPECT_EQ(static_cast<DWORD>(query(16, buffer.data(), static_cast<ULONG>(buffer.size()), &length)),
              0xC0000002u);  // SystemHandleInformation: STATUS_NOT_IMPLEMENTED
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(static_cast<DWORD>(query(64, buffer.data(), static_cast<ULONG>(buffer.size()), &length)),
              0xC0000002u);  // SystemExtendedHandleInformation
    length = 0;
    EXPECT_EQ(query(5, buffer.data(), static_cast<ULONG>(buffer.size()), &length), 0);  // the process list
    EXPECT_GT(length, 0u);
}
