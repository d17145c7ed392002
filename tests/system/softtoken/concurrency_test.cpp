// Many threads and two processes on one token.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <thread>

#include "support/device_calls.h"
#include "support/ecdsa_signature.h"
#include "support/scratch_files.h"
#include "support/test_support.h"
#include "support/token_tool.h"

using namespace testsupport;

namespace {

using ConcurrencyTest = TokenStoreTest;

Bytes idOf(const CalythKeyPair& key) {
    return Bytes(key.keyId, key.keyId + 16);
}

}  // namespace

TEST_F(ConcurrencyTest, ThreadsSignWhileAnotherListsDevicesEverySoOften) {
    makeToken("SN1");
    Bytes rsa = unhex(makeKey("SN1", "rsa2048"));
    Bytes ec = unhex(makeKey("SN1", "p256"));
    Bytes rsaPublic, ecPublic;
    {
        CalythKeyPair r = keyRecord("SN1", rsa), e = keyRecord("SN1", ec);
        rsaPublic.assign(r.publicKey, r.publicKey + r.publicKeyLength);
        ecPublic.assign(e.publicKey, e.publicKey + e.publicKeyLength);
    }
    std::atomic<bool> signing{true};
    std::atomic<int> failures{0}, signatures{0}, listings{0};
    std::thread monitor([&] {
        while (signing) {
            std::vector<std::string> devices = calyth_getConnectedDeviceList(false, nullptr);
            std::vector<CalythKeyPair> keys = calyth_getKeyPairList("SN1", nullptr);
            TokenInfo info = calyth_getTokenInfo("SN1", nullptr);
            if (devices != std::vector<std::string>{"SN1"} || keys.size() != 2 || info.label != "SN1" ||
                calyth_initDevice("SN1", false, nullptr) != 0)
                ++failures;
            ++listings;
        }
    });
    std::vector<std::thread> signers;
    for (int t = 0; t < 4; ++t) {
        signers.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                bool useRsa = (i + t) % 2 == 0;
                Bytes hash(32, static_cast<unsigned char>(t * 100 + i)), signature(256);
                int length = 256;
                const Bytes& key = useRsa ? rsa : ec;
                if (calyth_signHash("SN1", key.data(), "1234", hash.data(), 32, signature.data(), &length,
                                    true, nullptr, false) != 0) {
                    ++failures;
                    continue;
                }
                const Bytes& publicKey = useRsa ? rsaPublic : ecPublic;
                if (calyth_verifySignatureHash(2, "SN1", hash.data(), 32, publicKey.data(),
                                               static_cast<int>(publicKey.size()), signature.data(), length,
                                               nullptr, false) != 0)
                    ++failures;
                ++signatures;
            }
        });
    }
    for (std::thread& signer : signers)
        signer.join();
    signing = false;
    monitor.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(signatures, 100);
    EXPECT_GT(listings, 0);
}

TEST_F(ConcurrencyTest, ListReturnedByReferenceStaysUnchangedWhileOtherThreadsCall) {
    makeToken("SN1");
    unhex(makeKey("SN1", "p256"));
    std::vector<CalythKeyPair>& held = calyth_getKeyPairList("SN1", nullptr);
    std::vector<CalythCertificate>& heldCertificates = calyth_getCertificateList("SN1", nullptr);
    ASSERT_EQ(held.size(), 1u);
    CalythKeyPair copy = held[0];
    const CalythKeyPair* where = held.data();

    std::thread other([] {
        for (int i = 0; i < 3; ++i) {
            CalythKeyPair request;
            std::memset(&request, 0, sizeof request);
            request.keySizeCode = CALYTH_KEY_EC_P256;
            EXPECT_EQ(calyth_generateKeyPair("SN1", "1234", &request, nullptr), 0);
            EXPECT_EQ(calyth_getKeyPairList("SN1", nullptr).size(), static_cast<size_t>(i + 2));
            calyth_getCertificateList("SN1", nullptr);
            calyth_getConnectedDeviceList(false, nullptr);
        }
    });
    other.join();

    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(held.data(), where);
    EXPECT_EQ(std::memcmp(&held[0], &copy, sizeof copy), 0);
    EXPECT_TRUE(heldCertificates.empty());
    EXPECT_EQ(calyth_getKeyPairList("SN1", nullptr).size(), 4u) << "the thread's next call sees the change";
}

TEST_F(ConcurrencyTest, AdminCommandAndThisProcessChangeOneTokenWithoutLosingAnUpdate) {
    makeToken("SN1");
    Bytes signer = unhex(makeKey("SN1", "p256"));
    std::atomic<bool> running{true};
    std::atomic<int> failures{0};
    std::vector<Bytes> madeHere;
    std::atomic<bool> toolRunning{true};
    std::thread generator([&] {
        // Keeps writing for as long as the admin command runs, so that both write at the same time.
        while (toolRunning && madeHere.size() < 40) {
            CalythKeyPair request;
            std::memset(&request, 0, sizeof request);
            request.keySizeCode = CALYTH_KEY_EC_P256;
            if (calyth_generateKeyPair("SN1", "1234", &request, nullptr) == 0)
                madeHere.push_back(idOf(request));
            else
                ++failures;
        }
    });
    std::thread user([&] {
        Bytes hash(32, 7), signature(64);
        while (running) {
            int length = 64;
            if (calyth_signHash("SN1", signer.data(), "1234", hash.data(), 32, signature.data(), &length,
                                true, nullptr, false) != 0)
                ++failures;
            unsigned char random[16];
            if (calyth_generateRamdomNumber("SN1", 16, random, false, nullptr) != 0)
                ++failures;
        }
    });
    std::vector<Bytes> madeThere;
    for (int i = 0; i < 5; ++i)
        madeThere.push_back(unhex(makeKey("SN1", "p256")));
    std::string output;
    EXPECT_EQ(calythToken("sso --serial SN1 on", &output), 0) << output;
    toolRunning = false;
    generator.join();
    running = false;
    user.join();

    EXPECT_EQ(failures, 0);
    std::vector<CalythKeyPair> keys = calyth_getKeyPairList("SN1", nullptr);
    EXPECT_GE(madeHere.size(), 2u);
    EXPECT_EQ(keys.size(), 1 + madeHere.size() + madeThere.size());
    std::set<std::string> listed;
    for (const CalythKeyPair& key : keys)
        listed.insert(hex(idOf(key)));
    for (const Bytes& id : madeHere)
        EXPECT_EQ(listed.count(hex(id)), 1u);
    for (const Bytes& id : madeThere)
        EXPECT_EQ(listed.count(hex(id)), 1u);
    EXPECT_EQ(calyth_getTokenInfo("SN1", nullptr).ssoValid, 1);
    ASSERT_EQ(calythToken("list --serial SN1", &output), 0);
    for (const Bytes& id : madeHere)
        EXPECT_NE(output.find(hex(id)), std::string::npos);
}

TEST_F(ConcurrencyTest, KeyDeletedByTheAdminCommandIsGoneForARunningProcess) {
    makeToken("SN1");
    Bytes key = unhex(makeKey("SN1", "p256"));
    Bytes hash(32, 1), signature(64);
    int length = 64;
    ASSERT_EQ(calyth_signHash("SN1", key.data(), "1234", hash.data(), 32, signature.data(), &length, true,
                              nullptr, false),
              0);
    ASSERT_EQ(calythToken("delkey --serial SN1 --key " + hex(key)), 0);
    length = 64;
    EXPECT_NE(calyth_signHash("SN1", key.data(), "1234", hash.data(), 32, signature.data(), &length, true,
                              nullptr, false),
              0);
    EXPECT_TRUE(calyth_getKeyPairList("SN1", nullptr).empty());
}

TEST_F(ConcurrencyTest, ThreadsWritingTheSameTokenLoseNothing) {
    makeToken("SN1");
    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 8; ++i) {
                CalythSymmetricKey key;
                std::memset(&key, 0, sizeof key);
                key.keyBytes[0] = static_cast<unsigned char>(t);
                key.keyBytes[1] = static_cast<unsigned char>(i);
                key.keyLength = 16;
                key.type = CALYTH_SYMMETRIC_AES_128;
                if (calyth_importAesKey("SN1", "1234", &key, nullptr) != 0)
                    ++failures;
            }
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(failures, 0);
    std::vector<CalythSymmetricKey> keys = calyth_getAesKeyList("SN1", nullptr);
    EXPECT_EQ(keys.size(), 32u);
    std::set<std::string> ids;
    for (const CalythSymmetricKey& key : keys)
        ids.insert(hex(Bytes(key.keyId, key.keyId + 16)));
    EXPECT_EQ(ids.size(), 32u);
}

TEST_F(ConcurrencyTest, ThreadsHashAtTheSameTime) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> hashers;
    for (int t = 0; t < 4; ++t) {
        hashers.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                void* handle = nullptr;
                const unsigned char abc[3] = {'a', 'b', 'c'};
                Bytes out(32);
                int length = 32;
                if (calyth_initHash("", CALYTH_HASH_SHA256, &handle, nullptr) != 0 ||
                    calyth_updateHash(handle, abc, 3, nullptr) != 0 ||
                    calyth_finalHash(handle, out.data(), &length, nullptr) != 0 ||
                    hex(out) != "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD")
                    ++wrong;
            }
        });
    }
    for (std::thread& hasher : hashers)
        hasher.join();
    EXPECT_EQ(wrong, 0);
}

// A token that stays plugged is in every device list while it is written (faults set by the admin
// command, faults taken and keys imported here) and the other token is unplugged and plugged: the
// provider's monitor forgets the PIN of any token missing from one list.
TEST_F(ConcurrencyTest, TokenThatStaysPluggedIsInEveryDeviceListWhileTokensAreWritten) {
    makeToken("SN1");
    makeToken("SN2");
    std::atomic<bool> running{true};
    std::atomic<int> listings{0}, missing{0}, writes{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (running) {
                std::vector<std::string> devices = calyth_getConnectedDeviceList(false, nullptr);
                if (std::find(devices.begin(), devices.end(), "SN2") == devices.end())
                    ++missing;
                ++listings;
            }
        });
    }
    threads.emplace_back([&] {
        // Writes SN2 with key imports, and with each fault that the admin command sets and
        // getTokenInfo takes.
        int i = 0;
        while (running) {
            CalythSymmetricKey key;
            std::memset(&key, 0, sizeof key);
            key.keyBytes[0] = static_cast<unsigned char>(++i);
            key.keyLength = 16;
            key.type = CALYTH_SYMMETRIC_AES_128;
            if (calyth_importAesKey("SN2", "1234", &key, nullptr) == 0)
                ++writes;
            calyth_getTokenInfo("SN2", nullptr);
        }
    });
    std::string output;
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(calythToken(std::string(i % 2 ? "plug" : "unplug") + " --serial SN1", &output), 0)
            << output;
        EXPECT_EQ(calythToken("fault --serial SN2 --function getTokenInfo --code 1 --count 2", &output), 0)
            << output;
    }
    running = false;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(writes, 0);
    EXPECT_GT(listings, 0);
    EXPECT_EQ(missing, 0) << "of " << listings << " device lists";
}
