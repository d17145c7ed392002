// The process-wide IV under threads: an operation hands the device its own copy of the IV, taken
// when it starts, so that an IV set meanwhile (by any key, through either front-end, of any length)
// neither changes nor frees the bytes the device is reading. The last IV set is the one later
// operations use.
#include <windows.h>

#include <wincrypt.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "both_front_ends.h"
#include "csp/csp_entry_points.h"
#include "csp/key_handle.h"

using namespace hardening;
using namespace ksptest;

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kKeyByte = 0x5A;

// An IV of `length` bytes, each of them `length`: a torn or freed IV shows up as a byte that does
// not match its length.
Bytes ivOf(size_t length) {
    return Bytes(length, static_cast<unsigned char>(length));
}

bool isWholeIv(const unsigned char* iv, int length) {
    if (length != 8 && length != 16 && length != 24 && length != 40)
        return false;
    for (int i = 0; i < length; ++i)
        if (iv[i] != length)
            return false;
    return true;
}

Bytes xorWithKey(const Bytes& data) {
    Bytes out(data);
    for (unsigned char& b : out)
        b ^= kKeyByte;
    return out;
}

class IvUnderThreads : public BothFrontEnds {
protected:
    void SetUp() override {
        BothFrontEnds::SetUp();
        cspAes_ = cspAesKey(10);
        cspTripleDes_ = cspAesKey(11);
        cngAes_ = makeEmptyKey();
        KspKey* key = kspKeyFrom(cngAes_);
        std::memset(key->symmetricKey, kKeyByte, 16);
        key->symmetricKeyLength = 16;
        key->chainingMode = KSP_CHAINING_CBC;
        tokenPair_ = makeKey(kRsaSignId);
    }
    void TearDown() override {
        fake::hooks().symmetricIv = nullptr;
        CPDestroyKey(prov(), cspAes_);
        CPDestroyKey(prov(), cspTripleDes_);
        BothFrontEnds::TearDown();
    }

    // A CryptoAPI key object with 16 bytes of AES material, as key import makes it; KP_IV copies
    // 16 bytes into the IV for algorithm 10 and 8 for 11.
    HCRYPTKEY cspAesKey(uint32_t algId) {
        KEY_HANDLE* key = allocateKeyHandle();
        key->keyIdLength = 16;
        key->algId = algId;
        key->inMemory = 1;
        std::memset(key->symmetricKey, kKeyByte, 16);
        key->symmetricKeyLength = 16;
        return reinterpret_cast<HCRYPTKEY>(key);
    }

    // Through CryptoAPI: 16 bytes (algorithm 10) or 8 (algorithm 11).
    bool setCspIv(size_t length) {
        Bytes iv = ivOf(length);
        return CPSetKeyParam(prov(), length == 8 ? cspTripleDes_ : cspAes_, KP_IV, iv.data(), 0) != FALSE;
    }
    // Through CNG on a token key pair, which takes any length.
    bool setCngIv(size_t length) {
        Bytes iv = ivOf(length);
        return KSPSetKeyProperty(provider_, tokenPair_, L"IV", iv.data(), static_cast<DWORD>(length), 0) == 0;
    }

    bool cspEncrypt(const Bytes& data, Bytes* out) {
        *out = data;
        out->resize(64);
        DWORD length = static_cast<DWORD>(data.size());
        if (!CPEncrypt(prov(), cspAes_, 0, TRUE, 0, out->data(), &length, 64))
            return false;
        out->resize(length);
        return true;
    }
    bool cspDecrypt(const Bytes& data, Bytes* out) {
        *out = data;
        DWORD length = static_cast<DWORD>(data.size());
        if (!CPDecrypt(prov(), cspAes_, 0, TRUE, 0, out->data(), &length))
            return false;
        out->resize(length);
        return true;
    }
    bool cngEncrypt(const Bytes& data, Bytes* out) {
        Bytes input(data);
        out->assign(64, 0);
        DWORD result = 0;
        if (KSPEncrypt(provider_, cngAes_, input.data(), static_cast<DWORD>(input.size()), nullptr,
                       out->data(), 64, &result, 0) != 0)
            return false;
        out->resize(result);
        return true;
    }
    bool cngDecrypt(const Bytes& data, Bytes* out) {
        Bytes input(data);
        out->assign(64, 0);
        DWORD result = 0;
        if (KSPDecrypt(provider_, cngAes_, input.data(), static_cast<DWORD>(input.size()), nullptr,
                       out->data(), 64, &result, 0) != 0)
            return false;
        out->resize(result);
        return true;
    }

    using Operation = std::function<bool(const Bytes&, Bytes*)>;
    std::vector<std::pair<std::string, Operation>> operations() {
        return {{"CPEncrypt", [this](const Bytes& d, Bytes* o) { return cspEncrypt(d, o); }},
                {"CPDecrypt", [this](const Bytes& d, Bytes* o) { return cspDecrypt(d, o); }},
                {"KSPEncrypt", [this](const Bytes& d, Bytes* o) { return cngEncrypt(d, o); }},
                {"KSPDecrypt", [this](const Bytes& d, Bytes* o) { return cngDecrypt(d, o); }}};
    }

    HCRYPTKEY cspAes_ = 0;
    HCRYPTKEY cspTripleDes_ = 0;
    NCRYPT_KEY_HANDLE cngAes_ = 0;
    NCRYPT_KEY_HANDLE tokenPair_ = 0;
};

// While the device reads the IV, another thread sets one of the same length through the other
// front-end: the bytes the device was given stay the operation's own.
TEST_F(IvUnderThreads, TheDeviceKeepsTheIvItWasGivenWhileAnotherThreadSetsOne) {
    for (const auto& [name, operation] : operations()) {
        bool cspSide = name.rfind("CP", 0) == 0;
        ASSERT_TRUE(cspSide ? setCspIv(16) : setCngIv(16)) << name;
        Bytes before;
        Bytes after;
        bool otherSetOk = false;
        fake::hooks().symmetricIv = [&](const unsigned char* iv, int length) {
            before.assign(iv, iv + length);
            std::thread other([&] {
                Bytes replacement(16, 0xB2);
                otherSetOk =
                    cspSide ? KSPSetKeyProperty(provider_, tokenPair_, L"IV", replacement.data(), 16, 0) == 0
                            : CPSetKeyParam(prov(), cspAes_, KP_IV, replacement.data(), 0) != FALSE;
            });
            other.join();
            after.assign(iv, iv + length);
        };
        Bytes out;
        EXPECT_TRUE(operation(Bytes(32, 0x42), &out)) << name;
        fake::hooks().symmetricIv = nullptr;
        EXPECT_TRUE(otherSetOk) << name;
        EXPECT_EQ(before, ivOf(16)) << name;
        EXPECT_EQ(after, ivOf(16)) << name << ": the IV changed under the device";
        // The last writer wins for the operations that follow.
        before.clear();
        fake::hooks().symmetricIv = [&](const unsigned char* iv, int length) {
            before.assign(iv, iv + length);
        };
        EXPECT_TRUE(operation(Bytes(32, 0x42), &out)) << name;
        fake::hooks().symmetricIv = nullptr;
        EXPECT_EQ(before, Bytes(16, 0xB2)) << name;
    }
}

// Two threads set IVs of different lengths through both front-ends while four others encrypt and
// decrypt through both: every result is right and every IV the device is handed is one that was
// set, whole, and stays so while the device reads it.
TEST_F(IvUnderThreads, SettersAndOperationsOnManyThreadsNeverShareAnIvBuffer) {
    ASSERT_TRUE(setCngIv(16));
    std::atomic<int> badIvs{0};
    std::atomic<int> changedIvs{0};
    std::mutex sampleMutex;
    std::string sample;
    fake::hooks().symmetricIv = [&](const unsigned char* iv, int length) {
        if (!isWholeIv(iv, length)) {
            ++badIvs;
            std::lock_guard<std::mutex> lock(sampleMutex);
            sample = "length " + std::to_string(length);
            return;
        }
        Bytes first(iv, iv + length);
        for (int i = 0; i < 3; ++i)
            std::this_thread::yield();
        if (Bytes(iv, iv + length) != first)
            ++changedIvs;
    };

    constexpr int kRounds = 300;
    std::atomic<bool> done{false};
    std::atomic<int> setFailures{0};
    std::vector<std::thread> setters;
    setters.emplace_back([&] {
        for (size_t i = 0; !done; ++i)
            if (!setCspIv(i % 2 == 0 ? 8 : 16))
                ++setFailures;
    });
    setters.emplace_back([&] {
        const size_t lengths[] = {8, 40, 16, 24};
        for (size_t i = 0; !done; ++i)
            if (!setCngIv(lengths[i % 4]))
                ++setFailures;
    });

    std::vector<std::pair<std::string, Operation>> all = operations();
    std::vector<int> wrongResults(all.size(), 0);
    std::vector<std::thread> workers;
    for (size_t w = 0; w < all.size(); ++w) {
        workers.emplace_back([&, w] {
            for (int round = 0; round < kRounds; ++round) {
                Bytes data(32, static_cast<unsigned char>(round));
                Bytes out;
                if (!all[w].second(data, &out) || out != xorWithKey(data))
                    ++wrongResults[w];
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    done = true;
    for (std::thread& setter : setters)
        setter.join();
    fake::hooks().symmetricIv = nullptr;

    for (size_t w = 0; w < all.size(); ++w)
        EXPECT_EQ(wrongResults[w], 0) << all[w].first;
    EXPECT_EQ(setFailures.load(), 0);
    EXPECT_EQ(badIvs.load(), 0) << "the device was handed an IV nobody set, e.g. " << sample;
    EXPECT_EQ(changedIvs.load(), 0) << "an IV changed while the device read it";
    EXPECT_EQ(fake::countCalls("calyth_encrypt_aes") + fake::countCalls("calyth_decryptSymetric"),
              all.size() * kRounds);
}

}  // namespace
