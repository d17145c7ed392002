// Secrets are zeroed before their memory goes back to the heap: every block the device library
// hands out (decrypted keys and plaintexts, AES output, the ECDH secret) on every path of both
// front-ends, the AES material of key objects when they are freed, and the key derivation's digest
// when the derivation fails. The program follows each block to its free() (freed_buffers.h).
#include <windows.h>

#include <wincrypt.h>

#include <cstring>
#include <gmock/gmock.h>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "both_front_ends.h"
#include "csp/csp_entry_points.h"
#include "csp/key_handle.h"
#include "fake_device/freed_buffers.h"
#include "token/token_table.h"

using namespace hardening;
using namespace ksptest;
using ::testing::IsEmpty;

namespace fake {
// How gtest shows a block that was not zeroed.
std::ostream& operator<<(std::ostream& out, const FreedBlock& block) {
    return out << block.what << " (" << block.size << " bytes)";
}
}  // namespace fake

namespace {

using Bytes = std::vector<unsigned char>;

Bytes capiBlob(BYTE type, ALG_ID algorithm, const Bytes& body, bool withKeyAlgorithm) {
    Bytes blob{type, CUR_BLOB_VERSION, 0, 0};
    auto put32 = [&blob](uint32_t value) {
        for (int i = 0; i < 4; ++i)
            blob.push_back(static_cast<unsigned char>(value >> (8 * i)));
    };
    put32(algorithm);
    if (withKeyAlgorithm)
        put32(CALG_RSA_KEYX);
    blob.insert(blob.end(), body.begin(), body.end());
    if (!withKeyAlgorithm)
        put32(0xEEEEEEEE);  // a wrap blob's last four bytes never reach the token
    return blob;
}

// What the fake token decrypts to `plain` (its RSA "decryption" undoes a XOR), little-endian as a
// SIMPLEBLOB carries it.
Bytes simpleBlobBody(const Bytes& plain) {
    Bytes body(plain.rbegin(), plain.rend());
    for (unsigned char& b : body)
        b ^= fake::kRsaFakeMask;
    return body;
}

Bytes transportBlob(const Bytes& plain) {
    Bytes blob(plain);
    for (unsigned char& b : blob)
        b ^= fake::kRsaFakeMask;
    return blob;
}

CalythSymmetricKey keyEncryptionKey() {
    CalythSymmetricKey kek{};
    std::memset(kek.keyId, 0x5E, sizeof kek.keyId);
    std::memset(kek.reference, 0x6F, 16);
    kek.referenceLength = 16;
    kek.type = CALYTH_SYMMETRIC_AES_128;
    return kek;
}

size_t offsetIn(const void* record, const void* field) {
    return static_cast<size_t>(static_cast<const unsigned char*>(field) -
                               static_cast<const unsigned char*>(record));
}

class SecretWiping : public BothFrontEnds {
protected:
    void SetUp() override {
        BothFrontEnds::SetUp();
        fake::token("SN1").aesKeys.push_back(keyEncryptionKey());
        fake::followHandedOutBuffers();
    }

    std::vector<fake::FreedBlock> unwiped() {
        std::vector<fake::FreedBlock> found;
        for (const fake::FreedBlock& block : fake::freedBlocks())
            if (!block.wiped)
                found.push_back(block);
        return found;
    }

    std::set<std::string> freedNames() {
        std::set<std::string> names;
        for (const fake::FreedBlock& block : fake::freedBlocks())
            names.insert(block.what);
        return names;
    }

    HCRYPTKEY importCsp(const Bytes& blob, HCRYPTKEY unwrapKey = 0) {
        HCRYPTKEY key = 0;
        EXPECT_TRUE(CPImportKey(prov(), blob.data(), static_cast<DWORD>(blob.size()), unwrapKey, 0, &key));
        return key;
    }

    NCRYPT_KEY_HANDLE importCng(const wchar_t* type, const Bytes& blob, NCRYPT_KEY_HANDLE importKey = 0,
                                SECURITY_STATUS expected = 0) {
        NCRYPT_KEY_HANDLE key = 0;
        Bytes copy(blob);
        EXPECT_EQ(KSPImportKey(provider_, importKey, type, nullptr, &key, copy.data(),
                               static_cast<DWORD>(copy.size()), 0),
                  expected);
        return key;
    }
};

TEST_F(SecretWiping, EveryBlockTheDeviceHandsOutIsZeroedBeforeItIsFreed) {
    runCryptoApi("1234");  // RSA decryption
    runCng("1234");        // RSA decryption, ECDH

    // CryptoAPI: a session key unwrapped by a token RSA key, used for AES; a key unwrapped by a
    // token key-encryption key.
    HCRYPTKEY exchange = 0;
    ASSERT_TRUE(CPGetUserKey(prov(), AT_KEYEXCHANGE, &exchange));
    Bytes session(32, 0x3C);
    HCRYPTKEY sessionKey =
        importCsp(capiBlob(SIMPLEBLOB, CALG_AES_256, simpleBlobBody(session), true), exchange);
    Bytes data(32, 0x42);
    DWORD length = 32;
    EXPECT_TRUE(CPEncrypt(prov(), sessionKey, 0, TRUE, 0, data.data(), &length, 32));
    Bytes wrapped(24, 0x71);  // 8-byte check block + 16-byte key
    HCRYPTKEY unwrappedKey = importCsp(capiBlob(SYMMETRICWRAPKEYBLOB, CALG_AES_128, wrapped, false));
    CPDestroyKey(prov(), sessionKey);
    CPDestroyKey(prov(), unwrappedKey);
    CPDestroyKey(prov(), exchange);

    // CNG: a transport key decrypted into the key object, used for AES; a wrapped key unwrapped
    // by the token's key-encryption key; a transport key of a length no AES key has.
    NCRYPT_KEY_HANDLE rsa = openKey(kRsaExchangeId);
    NCRYPT_KEY_HANDLE transported = importCng(L"OpaqueTransport", transportBlob(Bytes(16, 0x2D)), rsa);
    Bytes output(64);
    DWORD result = 0;
    EXPECT_EQ(KSPEncrypt(provider_, transported, data.data(), 32, nullptr, output.data(), 64, &result, 0), 0);
    NCRYPT_KEY_HANDLE unwrapped = importCng(L"OpaqueKeyBlob", wrapped);
    importCng(L"OpaqueTransport", transportBlob(Bytes(20, 0x2E)), rsa, KSP_NTE_NOT_SUPPORTED);
    KSPFreeKey(provider_, transported);
    KSPFreeKey(provider_, unwrapped);

    EXPECT_EQ(freedNames(), (std::set<std::string>{"calyth_decrypt", "calyth_encrypt_aes",
                                                   "calyth_decrypt_aes", "calyth_ecdhDerive"}));
    EXPECT_THAT(unwiped(), IsEmpty());
    EXPECT_EQ(fake::blocksStillFollowed(), 0u) << "every block handed out was freed";
}

TEST_F(SecretWiping, KeyObjectsZeroTheirAesMaterialWhenFreed) {
    NCRYPT_KEY_HANDLE rsa = openKey(kRsaExchangeId);
    storeValidatedPin("SN1", "1234");
    NCRYPT_KEY_HANDLE transported = importCng(L"OpaqueTransport", transportBlob(Bytes(32, 0x2D)), rsa);
    ASSERT_NE(transported, 0u);
    const KspKey* cngKey = kspKeyFrom(transported);
    ASSERT_EQ(cngKey->symmetricKeyLength, 32u);
    fake::followBlock(cngKey, offsetIn(cngKey, cngKey->symmetricKey), sizeof cngKey->symmetricKey, "KspKey");
    EXPECT_EQ(KSPFreeKey(provider_, transported), 0);

    HCRYPTKEY exchange = 0;
    ASSERT_TRUE(CPGetUserKey(prov(), AT_KEYEXCHANGE, &exchange));
    HCRYPTKEY sessionKey =
        importCsp(capiBlob(SIMPLEBLOB, CALG_AES_256, simpleBlobBody(Bytes(32, 0x3C)), true), exchange);
    ASSERT_NE(sessionKey, 0u);
    const KEY_HANDLE* cspKey = keyHandleFrom(sessionKey);
    ASSERT_EQ(cspKey->symmetricKeyLength, 32);
    fake::followBlock(cspKey, offsetIn(cspKey, cspKey->symmetricKey), sizeof cspKey->symmetricKey,
                      "KEY_HANDLE");
    EXPECT_TRUE(CPDestroyKey(prov(), sessionKey));
    CPDestroyKey(prov(), exchange);

    std::vector<fake::FreedBlock> freed = fake::freedBlocks();
    std::set<std::string> records;
    for (const fake::FreedBlock& block : freed)
        if (block.what == "KspKey" || block.what == "KEY_HANDLE")
            records.insert(block.what);
    EXPECT_EQ(records, (std::set<std::string>{"KspKey", "KEY_HANDLE"}));
    EXPECT_THAT(unwiped(), IsEmpty());
}

TEST_F(SecretWiping, AFailedDerivationZeroesItsDigest) {
    NCRYPT_KEY_HANDLE ec = openKey(kEcSignId);
    storeValidatedPin("SN1", "1234");
    NCRYPT_SECRET_HANDLE secret = 0;
    ASSERT_EQ(KSPSecretAgreement(provider_, ec, ec, &secret, 0), 0);
    // The token writes the digest and then reports a failure.
    fake::hooks().finalHash = [](unsigned char* digest, int* length) {
        fake::followBlock(digest, 0, static_cast<size_t>(*length), "digest");
        return 7;
    };
    Bytes derived(32);
    DWORD result = 0;
    EXPECT_EQ(KSPDeriveKey(provider_, secret, nullptr, nullptr, derived.data(), 32, &result, 0),
              KSP_NTE_INTERNAL_ERROR);
    KSPFreeSecret(provider_, secret);

    bool digestFreed = false;
    for (const fake::FreedBlock& block : fake::freedBlocks())
        digestFreed = digestFreed || block.what == "digest";
    EXPECT_TRUE(digestFreed);
    EXPECT_THAT(unwiped(), IsEmpty());
}

}  // namespace
