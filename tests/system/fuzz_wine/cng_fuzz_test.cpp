// Mutated inputs through the CNG key storage function table, called as the NCrypt router calls it:
// KSPImportKey with every blob type name (and others), the provider and key property operations
// with odd names, lengths and flags, and KSPDeriveKey with mutated parameter lists. The provider
// handle for import and properties has no PIN, so nothing is stored on the token and no wrong PIN
// counts down its retries; derivation runs on a secret agreed with a token key.
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "system/cng/cng_support.h"
#include "system/fuzz_wine/fenced_buffer.h"
#include "system/fuzz_wine/fuzz_seeds.h"
#include "system/fuzz_wine/mutator.h"
#include "system/fuzz_wine/run_loop.h"

namespace fuzzwine {
namespace {

using cngtest::CngSystemTest;

const wchar_t* const kBlobTypes[] = {BCRYPT_RSAPUBLIC_BLOB,       BCRYPT_PUBLIC_KEY_BLOB,
                                     BCRYPT_ECCPUBLIC_BLOB,       BCRYPT_OPAQUE_KEY_BLOB,
                                     BCRYPT_KEY_DATA_BLOB,        LEGACY_RSAPUBLIC_BLOB,
                                     NCRYPT_OPAQUETRANSPORT_BLOB, NCRYPT_PKCS8_PRIVATE_KEY_BLOB,
                                     L"CalythNoSuchBlob",         L""};

// NCRYPT_PIN_PROPERTY is left out: a wrong PIN would count down the token's retries.
const wchar_t* const kProperties[] = {NCRYPT_NAME_PROPERTY,
                                      NCRYPT_IMPL_TYPE_PROPERTY,
                                      NCRYPT_VERSION_PROPERTY,
                                      NCRYPT_ALGORITHM_PROPERTY,
                                      NCRYPT_ALGORITHM_GROUP_PROPERTY,
                                      NCRYPT_MAX_NAME_LENGTH_PROPERTY,
                                      NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY,
                                      NCRYPT_SECURITY_DESCR_PROPERTY,
                                      NCRYPT_USE_COUNT_PROPERTY,
                                      NCRYPT_WINDOW_HANDLE_PROPERTY,
                                      NCRYPT_LENGTH_PROPERTY,
                                      NCRYPT_LENGTHS_PROPERTY,
                                      NCRYPT_KEY_USAGE_PROPERTY,
                                      NCRYPT_EXPORT_POLICY_PROPERTY,
                                      NCRYPT_BLOCK_LENGTH_PROPERTY,
                                      NCRYPT_KEY_TYPE_PROPERTY,
                                      NCRYPT_UNIQUE_NAME_PROPERTY,
                                      NCRYPT_PROVIDER_HANDLE_PROPERTY,
                                      NCRYPT_CERTIFICATE_PROPERTY,
                                      BCRYPT_CHAINING_MODE,
                                      BCRYPT_INITIALIZATION_VECTOR,
                                      L"CalythNoSuchProperty"};

const wchar_t* const kKdfNames[] = {
    BCRYPT_KDF_HASH,    BCRYPT_KDF_HMAC, BCRYPT_KDF_TLS_PRF, BCRYPT_KDF_SP80056A_CONCAT, L"TRUNCATE",
    L"CalythNoSuchKdf", nullptr};

template <size_t N>
const wchar_t* pick(const wchar_t* const (&names)[N], Random& random) {
    return names[random.below(N)];
}

DWORD oddFlags(Random& random) {
    return random.chance(70) ? 0 : random.interesting32();
}

class CngFuzz : public CngSystemTest {
protected:
    void SetUp() override {
        installCrashReport();
        CngSystemTest::SetUp();
        ASSERT_EQ(client.table()->OpenProvider(&bare, cngtest::kProviderName, 0), 0);
    }
    void TearDown() override {
        client.table()->FreeProvider(bare);
        CngSystemTest::TearDown();
    }

    // An opened token key (by its id) on the provider without PIN.
    NCRYPT_KEY_HANDLE openTokenKey(const std::string& keyId) {
        NCRYPT_KEY_HANDLE key = 0;
        std::wstring name = cngtest::wide(keyId);
        EXPECT_EQ(client.table()->OpenKey(bare, &key, name.c_str(), 0, 0), 0);
        return key;
    }

    NCRYPT_PROV_HANDLE bare = 0;
    FencedBuffer fence;
};

TEST_F(CngFuzz, KSPImportKey) {
    NCRYPT_KEY_HANDLE tokenKey = openTokenKey(cngtest::generateKey(cngtest::kSerial, "rsa2048", "exchange"));
    ASSERT_NE(tokenKey, 0u);
    const Bytes seeds[] = {cngRsaPublicBlob(),
                           cngEccPublicBlob(BCRYPT_ECDSA_PUBLIC_P256_MAGIC),
                           cngEccPublicBlob(BCRYPT_ECDH_PUBLIC_P521_MAGIC),
                           cngKeyDataBlob(),
                           cngOpaqueBlob(),
                           capiPublicKeyBlob(),
                           Bytes()};
    runEntryPoint("KSPImportKey", 11, [&](Random& random) {
        size_t which = random.below(7);
        // Mostly the name that goes with the seed, sometimes any name.
        static const size_t kNameOfSeed[] = {0, 2, 2, 4, 3, 5, 9};
        const wchar_t* type = random.chance(80) ? kBlobTypes[kNameOfSeed[which]] : pick(kBlobTypes, random);
        Bytes blob = mutate(seeds[which], random);
        NCRYPT_KEY_HANDLE importKey = random.chance(20) ? tokenKey : 0;
        NCRYPT_KEY_HANDLE key = 0;
        PBYTE data = random.chance(3) ? nullptr : fence.place(blob);
        if (client.table()->ImportKey(bare, importKey, type, nullptr, &key, data,
                                      static_cast<DWORD>(blob.size()), oddFlags(random)) == 0)
            client.table()->FreeKey(bare, key);
    });
    client.table()->FreeKey(bare, tokenKey);
}

TEST_F(CngFuzz, KSPProperties) {
    NCRYPT_KEY_HANDLE keys[2] = {openTokenKey(cngtest::generateKey(cngtest::kSerial, "p256", "sign")), 0};
    Bytes rsa = cngRsaPublicBlob();
    ASSERT_EQ(client.table()->ImportKey(bare, 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, &keys[1], rsa.data(),
                                        static_cast<DWORD>(rsa.size()), 0),
              0);
    const Bytes certificate = testCertificate();
    runEntryPoint("KSPProperties", 12, [&](Random& random) {
        const wchar_t* name = random.chance(3) ? nullptr : pick(kProperties, random);
        NCRYPT_KEY_HANDLE key = keys[random.below(2)];
        DWORD length =
            random.chance(60) ? random.below(64) : std::min<DWORD>(random.interesting32(), 64 * 1024);
        DWORD result = 0;
        switch (random.below(4)) {
            case 0:
                client.table()->GetProviderProperty(bare, name,
                                                    random.chance(20) ? nullptr : fence.room(length), length,
                                                    &result, oddFlags(random));
                break;
            case 1:
                client.table()->GetKeyProperty(bare, key, name,
                                               random.chance(20) ? nullptr : fence.room(length), length,
                                               &result, oddFlags(random));
                break;
            default: {
                Bytes value =
                    random.chance(30) && name != nullptr && std::wstring(name) == NCRYPT_CERTIFICATE_PROPERTY
                        ? mutate(certificate, random)
                        : mutate(Bytes(length, 0), random, 512);
                PBYTE input = random.chance(10) ? nullptr : fence.place(value);
                DWORD inputLength = static_cast<DWORD>(value.size());
                if (random.below(2) == 0)
                    client.table()->SetProviderProperty(bare, name, input, inputLength, oddFlags(random));
                else
                    client.table()->SetKeyProperty(bare, key, name, input, inputLength, oddFlags(random));
                break;
            }
        }
    });
    client.table()->FreeKey(bare, keys[0]);
    client.table()->FreeKey(bare, keys[1]);
}

TEST_F(CngFuzz, KSPDeriveKey) {
    NCRYPT_KEY_HANDLE tokenKey = 0;
    std::wstring name = cngtest::wide(cngtest::generateKey(cngtest::kSerial, "p256", "exchange"));
    ASSERT_EQ(client.table()->OpenKey(provider(), &tokenKey, name.c_str(), 0, 0), 0);
    NCRYPT_KEY_HANDLE peer = 0;
    Bytes peerBlob = cngEccPublicBlob(BCRYPT_ECDH_PUBLIC_P256_MAGIC);
    ASSERT_EQ(client.table()->ImportKey(provider(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer, peerBlob.data(),
                                        static_cast<DWORD>(peerBlob.size()), 0),
              0);
    NCRYPT_SECRET_HANDLE secret = 0;
    ASSERT_EQ(client.table()->SecretAgreement(provider(), tokenKey, peer, &secret, 0), 0);

    // The buffer array and the first values each end at a fence of their own.
    FencedBuffer values[3];
    const Bytes hashName(reinterpret_cast<const unsigned char*>(L"SHA256"),
                         reinterpret_cast<const unsigned char*>(L"SHA256") + 14);
    runEntryPoint("KSPDeriveKey", 13, [&](Random& random) {
        static const ULONG kTypes[] = {0, 13, 14, 15, 8, 9, 1, 0xFFFFFFFF};
        size_t count = random.below(random.chance(10) ? 12 : 4);
        std::vector<NCryptBuffer> buffers(count);
        std::vector<Bytes> owned(count);
        for (size_t i = 0; i < count; ++i) {
            NCryptBuffer& buffer = buffers[i];
            buffer.BufferType = random.chance(90) ? kTypes[random.below(8)] : random.interesting32();
            owned[i] =
                mutate(buffer.BufferType == 0 ? hashName : Bytes(random.below(40), 0x5A), random, 1024);
            buffer.cbBuffer = static_cast<ULONG>(owned[i].size());
            buffer.pvBuffer = random.chance(5) ? nullptr
                              : i < 3          ? values[i].place(owned[i])
                                               : owned[i].data();
        }
        Bytes array(count * sizeof(NCryptBuffer));
        if (count != 0)
            std::memcpy(array.data(), buffers.data(), array.size());
        NCryptBufferDesc list{NCRYPTBUFFER_VERSION, static_cast<ULONG>(count),
                              count != 0 ? reinterpret_cast<NCryptBuffer*>(fence.place(array)) : nullptr};
        if (random.chance(5))
            list.ulVersion = random.interesting32();
        NCryptBufferDesc* parameters = random.chance(10) ? nullptr : &list;
        DWORD length =
            random.chance(70) ? random.below(80) : std::min<DWORD>(random.interesting32(), 64 * 1024);
        FencedBuffer& output = values[random.below(3)];
        PBYTE derived = random.chance(30) ? nullptr : output.room(length);
        DWORD result = 0;
        client.table()->DeriveKey(provider(), secret, pick(kKdfNames, random), parameters, derived, length,
                                  &result, oddFlags(random));
    });
    client.table()->FreeSecret(provider(), secret);
    client.table()->FreeKey(provider(), peer);
    client.table()->FreeKey(provider(), tokenKey);
}

}  // namespace
}  // namespace fuzzwine
