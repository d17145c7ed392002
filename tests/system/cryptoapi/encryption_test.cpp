// Encryption, decryption and key blobs through advapi32 on a soft-token RSA key, checked against
// the native OpenSSL: what CryptEncrypt writes OpenSSL decrypts, what OpenSSL encrypts CryptDecrypt
// reads, the exported PUBLICKEYBLOB holds the modulus OpenSSL sees, and AES keys imported as blobs
// encrypt exactly as OpenSSL's AES does. CryptoAPI's RSA ciphertexts are little-endian, OpenSSL's
// big-endian: every crossing reverses the bytes.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <gtest/gtest.h>

#include "support/provider_registration.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"
#include "util/utils.h"

using namespace testsupport;
using testsupport::unixPath;

namespace {

constexpr const char* kSerial = "CLIENT-CRYPT-01";
constexpr const char* kPin = "5550123";
const Bytes kMessage = bytesOf("Session key material, 32 bytes!!");

struct CryptToken {
    std::string keyId;
    std::string publicPem;
    Bytes modulus;  // as OpenSSL reads it from the exported public key
};

const CryptToken& cryptToken() {
    static CryptToken token = [] {
        CryptToken made;
        EXPECT_EQ(registerProvider(), ERROR_SUCCESS);
        useFreshTokenStore();
        if (!makeToken(kSerial, std::string("--pin ") + kPin))
            return made;
        made.keyId = makeKey(kSerial, "rsa2048", "--usage both --label ClientDecrypter");
        if (made.keyId.empty())
            return made;
        made.publicPem = exportPublicKey(kSerial, made.keyId, tempPath("crypt-pub.pem"));
        if (!made.publicPem.empty())
            made.modulus = opensslModulus(made.publicPem);
        return made;
    }();
    return token;
}

std::string lowerHex(const Bytes& bytes) {
    std::string text = Utils().bytesToHex(bytes.data(), static_cast<int>(bytes.size()));
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

class Encryption : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(token.modulus.size(), 256u);
        ASSERT_TRUE(acquire(provider, token.keyId.c_str())) << std::hex << GetLastError();
        ASSERT_TRUE(
            CryptSetProvParam(provider.handle, PP_KEYEXCHANGE_PIN, reinterpret_cast<const BYTE*>(kPin), 0))
            << std::hex << GetLastError();
        ASSERT_TRUE(CryptGetUserKey(provider.handle, AT_KEYEXCHANGE, &tokenKey))
            << std::hex << GetLastError();
    }

    void TearDown() override {
        if (tokenKey)
            CryptDestroyKey(tokenKey);
    }

    // CryptEncrypt of `plain` with `key`; the ciphertext as CryptoAPI hands it out.
    static Bytes encrypt(HCRYPTKEY key, const Bytes& plain, DWORD flags, DWORD bufferSize = 256) {
        Bytes buffer(bufferSize);
        std::memcpy(buffer.data(), plain.data(), plain.size());
        DWORD length = static_cast<DWORD>(plain.size());
        BOOL ok = CryptEncrypt(key, 0, TRUE, flags, buffer.data(), &length, bufferSize);
        EXPECT_TRUE(ok) << std::hex << GetLastError();
        if (!ok)
            return {};
        buffer.resize(length);
        return buffer;
    }

    static Bytes decrypt(HCRYPTKEY key, const Bytes& cipher, DWORD flags) {
        Bytes buffer = cipher;
        DWORD length = static_cast<DWORD>(buffer.size());
        BOOL ok = CryptDecrypt(key, 0, TRUE, flags, buffer.data(), &length);
        EXPECT_TRUE(ok) << std::hex << GetLastError();
        if (!ok)
            return {};
        buffer.resize(length);
        return buffer;
    }

    const CryptToken& token = cryptToken();
    Provider provider;
    HCRYPTKEY tokenKey = 0;
};

TEST_F(Encryption, ExportedPublicKeyBlobHoldsTheModulusOpenSslReads) {
    DWORD size = 0;
    SetLastError(0);
    ASSERT_TRUE(CryptExportKey(tokenKey, 0, PUBLICKEYBLOB, 0, nullptr, &size));
    EXPECT_EQ(size, 276u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    Bytes blob(size);
    ASSERT_TRUE(CryptExportKey(tokenKey, 0, PUBLICKEYBLOB, 0, blob.data(), &size))
        << std::hex << GetLastError();
    ASSERT_EQ(size, 276u);

    BLOBHEADER header;
    RSAPUBKEY rsa;
    std::memcpy(&header, blob.data(), sizeof header);
    std::memcpy(&rsa, blob.data() + sizeof header, sizeof rsa);
    EXPECT_EQ(header.bType, PUBLICKEYBLOB);
    EXPECT_EQ(header.bVersion, 2);
    EXPECT_EQ(rsa.magic, 0x31415352u);  // "RSA1"
    EXPECT_EQ(rsa.bitlen, 2048u);
    EXPECT_EQ(rsa.pubexp, 65537u);
    Bytes littleEndian(blob.begin() + sizeof header + sizeof rsa, blob.end());
    EXPECT_EQ(reversed(littleEndian), token.modulus);

    // crypt32 reads the same blob back into the key OpenSSL sees.
    BYTE* encoded = nullptr;
    DWORD encodedSize = 0;
    ASSERT_TRUE(CryptEncodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, blob.data(),
                                    CRYPT_ENCODE_ALLOC_FLAG, nullptr, &encoded, &encodedSize));
    Bytes pkcs1(encoded, encoded + encodedSize);
    LocalFree(encoded);
    std::string der = writeTemp("exported-rsa.der", pkcs1);
    std::string output;
    ASSERT_EQ(
        runOpenSsl("rsa -RSAPublicKey_in -inform DER -in " + unixPath(der) + " -noout -modulus", &output), 0)
        << output;
    EXPECT_NE(output.find("Modulus=" + Utils().bytesToHex(token.modulus.data(), 256)), std::string::npos)
        << output;
}

TEST_F(Encryption, PrivateKeyBlobIsNotExported) {
    DWORD size = 4096;
    Bytes blob(size);
    SetLastError(0);
    EXPECT_FALSE(CryptExportKey(tokenKey, 0, PRIVATEKEYBLOB, 0, blob.data(), &size));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

struct PaddingCase {
    DWORD flags;
    const char* name;
    const char* opensslOption;
};

const PaddingCase kPaddings[] = {{0, "pkcs1", ""}, {CRYPT_OAEP, "oaep", " -pkeyopt rsa_padding_mode:oaep"}};

class EncryptionPerPadding : public Encryption, public ::testing::WithParamInterface<PaddingCase> {};

TEST_P(EncryptionPerPadding, TokenKeyEncryptsAndTheTokenDecrypts) {
    Bytes cipher = encrypt(tokenKey, kMessage, GetParam().flags);
    ASSERT_EQ(cipher.size(), 256u);
    EXPECT_NE(Bytes(cipher.begin(), cipher.begin() + kMessage.size()), kMessage);
    EXPECT_EQ(decrypt(tokenKey, cipher, GetParam().flags), kMessage);
    // Two encryptions of one message differ (random padding), both decrypt.
    Bytes again = encrypt(tokenKey, kMessage, GetParam().flags);
    EXPECT_NE(again, cipher);
    EXPECT_EQ(decrypt(tokenKey, again, GetParam().flags), kMessage);
}

TEST_P(EncryptionPerPadding, OpenSslCiphertextDecryptsThroughCryptDecrypt) {
    std::string name = GetParam().name;
    std::string plain = writeTemp("openssl-plain-" + name + ".bin", kMessage);
    std::string cipherFile = tempPath("openssl-cipher-" + name + ".bin");
    std::string output;
    ASSERT_EQ(
        runOpenSsl("pkeyutl -encrypt -pubin -inkey " + unixPath(token.publicPem) + GetParam().opensslOption +
                       " -in " + unixPath(plain) + " -out " + unixPath(cipherFile),
                   &output),
        0)
        << output;
    Bytes cipher = testsupport::readFile(cipherFile);
    ASSERT_EQ(cipher.size(), 256u);
    EXPECT_EQ(decrypt(tokenKey, reversed(cipher), GetParam().flags), kMessage);
}

TEST_P(EncryptionPerPadding, ImportedPublicKeyBlobEncryptsWhatOpenSslDecrypts) {
    std::string name = GetParam().name;
    std::string keyPem = tempPath("openssl-recipient-" + name + ".key");
    std::string pubPem = tempPath("openssl-recipient-" + name + ".pub.pem");
    std::string output;
    ASSERT_EQ(
        runOpenSsl("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + unixPath(keyPem), &output),
        0)
        << output;
    ASSERT_EQ(runOpenSsl("pkey -in " + unixPath(keyPem) + " -pubout -out " + unixPath(pubPem), &output), 0);
    Bytes blob = publicKeyBlob(opensslModulus(pubPem));
    HCRYPTKEY imported = 0;
    ASSERT_TRUE(
        CryptImportKey(provider.handle, blob.data(), static_cast<DWORD>(blob.size()), 0, 0, &imported))
        << std::hex << GetLastError();
    Bytes cipher = encrypt(imported, kMessage, GetParam().flags);
    CryptDestroyKey(imported);
    ASSERT_EQ(cipher.size(), 256u);

    std::string cipherFile = writeTemp("crypto-cipher-" + name + ".bin", reversed(cipher));
    std::string plainFile = tempPath("crypto-plain-" + name + ".bin");
    ASSERT_EQ(runOpenSsl("pkeyutl -decrypt -inkey " + unixPath(keyPem) + GetParam().opensslOption + " -in " +
                             unixPath(cipherFile) + " -out " + unixPath(plainFile),
                         &output),
              0)
        << output;
    EXPECT_EQ(testsupport::readFile(plainFile), kMessage);
}

TEST_P(EncryptionPerPadding, ExportedBlobImportedAgainEncryptsForTheToken) {
    DWORD size = 276;
    Bytes blob(size);
    ASSERT_TRUE(CryptExportKey(tokenKey, 0, PUBLICKEYBLOB, 0, blob.data(), &size));
    HCRYPTKEY imported = 0;
    ASSERT_TRUE(CryptImportKey(provider.handle, blob.data(), size, 0, 0, &imported))
        << std::hex << GetLastError();
    Bytes cipher = encrypt(imported, kMessage, GetParam().flags);
    CryptDestroyKey(imported);
    ASSERT_EQ(cipher.size(), 256u);
    EXPECT_EQ(decrypt(tokenKey, cipher, GetParam().flags), kMessage);
}

INSTANTIATE_TEST_SUITE_P(Paddings, EncryptionPerPadding, ::testing::ValuesIn(kPaddings),
                         [](const ::testing::TestParamInfo<PaddingCase>& testInfo) {
                             return std::string(testInfo.param.name);
                         });

TEST_F(Encryption, ShortBufferIsRefusedWithMoreDataAndTheNeededSize) {
    Bytes buffer(255);
    std::memcpy(buffer.data(), kMessage.data(), kMessage.size());
    DWORD length = static_cast<DWORD>(kMessage.size());
    SetLastError(0);
    EXPECT_FALSE(CryptEncrypt(tokenKey, 0, TRUE, 0, buffer.data(), &length, 255));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(length, 256u);
}

// AES keys imported as PLAINTEXTKEYBLOB are stored on the token and encrypt through it. No IV has
// been set in this process (the IV is one buffer for the whole process, set only through KP_IV on
// a session key; the test that sets it comes last), so these keys work in ECB mode with PKCS #7
// padding.
struct AesCase {
    ALG_ID algorithm;
    const char* keyHex;
    const char* opensslCipher;
};

const AesCase kAesKeys[] = {
    {CALG_AES_128, "000102030405060708090A0B0C0D0E0F", "aes-128-ecb"},
    {CALG_AES_256, "603DEB1015CA71BE2B73AEF0857D77811F352C073B6108D72D9810A30914DFF4", "aes-256-ecb"},
};

Bytes plainTextKeyBlob(ALG_ID algorithm, const Bytes& key) {
    BLOBHEADER header{PLAINTEXTKEYBLOB, CUR_BLOB_VERSION, 0, algorithm};
    DWORD keySize = static_cast<DWORD>(key.size());
    Bytes blob(sizeof header + sizeof keySize + key.size());
    std::memcpy(blob.data(), &header, sizeof header);
    std::memcpy(blob.data() + sizeof header, &keySize, sizeof keySize);
    std::copy(key.begin(), key.end(), blob.begin() + sizeof header + sizeof keySize);
    return blob;
}

// Imports the key as a PLAINTEXTKEYBLOB, encrypts 37 bytes, compares with OpenSSL, decrypts back.
void checkPlainTextKeyBlob(HCRYPTPROV provider, const AesCase& aesCase) {
    Bytes key = hexToBytes(aesCase.keyHex);
    Bytes blob = plainTextKeyBlob(aesCase.algorithm, key);
    size_t keysBefore = listedLines(kSerial, "secret-key").size();
    HCRYPTKEY aes = 0;
    ASSERT_TRUE(CryptImportKey(provider, blob.data(), static_cast<DWORD>(blob.size()), 0, 0, &aes))
        << std::hex << GetLastError();
    // The key went to the token.
    EXPECT_EQ(listedLines(kSerial, "secret-key").size(), keysBefore + 1);

    Bytes plain = bytesOf("Thirty-seven bytes of AES plaintext!!");
    Bytes buffer(64);
    std::memcpy(buffer.data(), plain.data(), plain.size());
    DWORD length = static_cast<DWORD>(plain.size());
    ASSERT_TRUE(CryptEncrypt(aes, 0, TRUE, 0, buffer.data(), &length, 64)) << std::hex << GetLastError();
    ASSERT_EQ(length, 48u);
    Bytes cipher(buffer.begin(), buffer.begin() + length);

    std::string name = aesCase.opensslCipher;
    std::string plainFile = writeTemp("aes-plain-" + name + ".bin", plain);
    std::string cipherFile = tempPath("aes-cipher-" + name + ".bin");
    std::string output;
    ASSERT_EQ(runOpenSsl("enc -" + name + " -K " + lowerHex(key) + " -in " + unixPath(plainFile) + " -out " +
                             unixPath(cipherFile),
                         &output),
              0)
        << output;
    EXPECT_EQ(cipher, testsupport::readFile(cipherFile));

    ASSERT_TRUE(CryptDecrypt(aes, 0, TRUE, 0, buffer.data(), &length)) << std::hex << GetLastError();
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + length), plain);
    CryptDestroyKey(aes);
}

TEST_F(Encryption, Aes128PlainTextKeyBlobEncryptsAsOpenSslAndDecryptsBack) {
    checkPlainTextKeyBlob(provider.handle, kAesKeys[0]);
}

TEST_F(Encryption, Aes256PlainTextKeyBlobEncryptsAsOpenSslAndDecryptsBack) {
    checkPlainTextKeyBlob(provider.handle, kAesKeys[1]);
}

TEST_F(Encryption, Aes192PlainTextKeyBlobIsRefused) {
    Bytes blob = plainTextKeyBlob(CALG_AES_192, Bytes(24, 0x42));
    HCRYPTKEY aes = 0;
    SetLastError(0);
    EXPECT_FALSE(CryptImportKey(provider.handle, blob.data(), static_cast<DWORD>(blob.size()), 0, 0, &aes));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
}

// A session key sent to the token's key as a SIMPLEBLOB (wrapped by OpenSSL with the token's
// public key), unwrapped on the token; with an IV set through KP_IV it encrypts in CBC mode exactly
// as OpenSSL's AES-256-CBC. Sets the process-wide IV: this suite comes after the Encryption suite,
// whose AES tests need the IV unset.
class SessionKey : public Encryption {};

TEST_F(SessionKey, SimpleBlobWrappedByOpenSslUnwrapsOnTheTokenAndEncryptsInCbcWithTheIv) {
    Bytes sessionKey = hexToBytes("8899AABBCCDDEEFF00112233445566778899AABBCCDDEEFF0011223344556677");
    Bytes iv = hexToBytes("F0E1D2C3B4A5968778695A4B3C2D1E0F");
    std::string keyFile = writeTemp("session-key.bin", sessionKey);
    std::string wrappedFile = tempPath("session-key.wrapped");
    std::string output;
    ASSERT_EQ(runOpenSsl("pkeyutl -encrypt -pubin -inkey " + unixPath(token.publicPem) + " -in " +
                             unixPath(keyFile) + " -out " + unixPath(wrappedFile),
                         &output),
              0)
        << output;
    Bytes wrapped = reversed(testsupport::readFile(wrappedFile));
    ASSERT_EQ(wrapped.size(), 256u);
    BLOBHEADER header{SIMPLEBLOB, CUR_BLOB_VERSION, 0, CALG_AES_256};
    ALG_ID wrapping = CALG_RSA_KEYX;
    Bytes blob(sizeof header + sizeof wrapping);
    std::memcpy(blob.data(), &header, sizeof header);
    std::memcpy(blob.data() + sizeof header, &wrapping, sizeof wrapping);
    blob.insert(blob.end(), wrapped.begin(), wrapped.end());

    HCRYPTKEY session = 0;
    ASSERT_TRUE(
        CryptImportKey(provider.handle, blob.data(), static_cast<DWORD>(blob.size()), tokenKey, 0, &session))
        << std::hex << GetLastError();
    ASSERT_TRUE(CryptSetKeyParam(session, KP_IV, iv.data(), 0)) << std::hex << GetLastError();

    Bytes plain = bytesOf("CBC needs the IV; the token keeps it for the process.");
    Bytes cipher = encrypt(session, plain, 0, 64);
    ASSERT_EQ(cipher.size(), 64u);
    std::string plainFile = writeTemp("session-plain.bin", plain);
    std::string cipherFile = tempPath("session-cipher.bin");
    ASSERT_EQ(runOpenSsl("enc -aes-256-cbc -K " + lowerHex(sessionKey) + " -iv " + lowerHex(iv) + " -in " +
                             unixPath(plainFile) + " -out " + unixPath(cipherFile),
                         &output),
              0)
        << output;
    EXPECT_EQ(cipher, testsupport::readFile(cipherFile));
    EXPECT_EQ(decrypt(session, cipher, 0), plain);
    CryptDestroyKey(session);
}

}  // namespace
