// Hashing and random numbers.
//
// A hash handle is a number, not an address: the provider never frees handles, so a finished
// hash keeps nothing at all, and a handle the library does not know (finished, evicted, garbage)
// is answered with an error instead of being dereferenced. At most kMaxOpenHashes unfinished
// hashes are kept; beyond that the oldest is dropped.
#include <gcrypt.h>

#include <map>
#include <memory>
#include <mutex>

#include "core/crypto.h"
#include "core/token_access.h"
#include "entry_guard.h"
#include "token/device_library.h"

using namespace softtoken;

namespace {

constexpr size_t kMaxOpenHashes = 4096;
constexpr uintptr_t kFirstHandle = 0x7A10000;
constexpr uintptr_t kHandleStep = 16;

struct OpenHash {
    std::mutex mutex;
    gcry_md_hd_t md = nullptr;
    int algorithm = 0;
    std::string serial;
    ~OpenHash() { gcry_md_close(md); }
};

std::mutex hashesMutex;
uintptr_t nextHandle = kFirstHandle;

std::map<uintptr_t, std::shared_ptr<OpenHash>>& openHashes() {
    static auto* hashes = new std::map<uintptr_t, std::shared_ptr<OpenHash>>();
    return *hashes;
}

std::shared_ptr<OpenHash> findHash(void* handle) {
    std::lock_guard<std::mutex> guard(hashesMutex);
    auto found = openHashes().find(reinterpret_cast<uintptr_t>(handle));
    return found == openHashes().end() ? nullptr : found->second;
}

int hashAlgorithm(int hashCode) {
    switch (hashCode) {
        case CALYTH_HASH_SHA1:
            return GCRY_MD_SHA1;
        case CALYTH_HASH_SHA256:
            return GCRY_MD_SHA256;
        case CALYTH_HASH_SHA384:
            return GCRY_MD_SHA384;
        case CALYTH_HASH_SHA512:
            return GCRY_MD_SHA512;
        default:
            return 0;
    }
}

// A hash started on a token needs the token for every step.
int checkToken(const OpenHash& hash, const char* function) {
    if (hash.serial.empty())
        return kOk;
    TokenRef token;
    return openConnected(hash.serial.c_str(), function, token);
}

}  // namespace

extern "C" {

int calyth_initHash(const char* serial, int hashCode, void** hashHandle, void*) {
    return guarded<int>(kFailed, [&] {
        if (!hashHandle)
            return int(kBadArgument);
        int algorithm = hashAlgorithm(hashCode);
        if (algorithm == 0)
            return int(kNotSupported);
        auto hash = std::make_shared<OpenHash>();
        hash->algorithm = algorithm;
        hash->serial = serial ? serial : "";
        int status = checkToken(*hash, "initHash");
        if (status != kOk)
            return status;
        ensureCryptoReady();
        if (gcry_md_open(&hash->md, algorithm, 0) != 0)
            return int(kCryptoFailure);
        std::lock_guard<std::mutex> guard(hashesMutex);
        if (openHashes().size() >= kMaxOpenHashes)
            openHashes().erase(openHashes().begin());
        uintptr_t handle = nextHandle;
        nextHandle += kHandleStep;
        openHashes()[handle] = hash;
        *hashHandle = reinterpret_cast<void*>(handle);
        return int(kOk);
    });
}

int calyth_updateHash(void* hashHandle, const unsigned char* data, int length, void*) {
    return guarded<int>(kFailed, [&] {
        if (length < 0 || (!data && length > 0))
            return int(kBadArgument);
        std::shared_ptr<OpenHash> hash = findHash(hashHandle);
        if (!hash)
            return int(kBadArgument);
        int status = checkToken(*hash, "updateHash");
        if (status != kOk)
            return status;
        std::lock_guard<std::mutex> guard(hash->mutex);
        if (!hash->md)
            return int(kBadArgument);
        gcry_md_write(hash->md, data, static_cast<size_t>(length));
        return int(kOk);
    });
}

int calyth_finalHash(void* hashHandle, unsigned char* digest, int* length, void*) {
    return guarded<int>(kFailed, [&] {
        if (!digest || !length)
            return int(kBadArgument);
        std::shared_ptr<OpenHash> hash = findHash(hashHandle);
        if (!hash)
            return int(kBadArgument);
        int status = checkToken(*hash, "finalHash");
        if (status != kOk)
            return status;
        std::lock_guard<std::mutex> guard(hash->mutex);
        if (!hash->md)
            return int(kBadArgument);
        int size = static_cast<int>(gcry_md_get_algo_dlen(hash->algorithm));
        if (*length < size) {
            *length = size;
            return int(kBufferTooSmall);
        }
        std::memcpy(digest, gcry_md_read(hash->md, hash->algorithm), static_cast<size_t>(size));
        *length = size;
        gcry_md_close(hash->md);
        hash->md = nullptr;
        std::lock_guard<std::mutex> registry(hashesMutex);
        openHashes().erase(reinterpret_cast<uintptr_t>(hashHandle));
        return int(kOk);
    });
}

int calyth_generateRamdomNumber(const char* serial, int length, unsigned char* output, bool useSoftware,
                                void*) {
    return guarded<int>(kFailed, [&] {
        if (length < 0 || (!output && length > 0))
            return int(kBadArgument);
        if (!isEmpty(serial) && !useSoftware) {
            TokenRef token;
            int status = openConnected(serial, "generateRamdomNumber", token);
            if (status != kOk)
                return status;
        }
        if (length > 0)
            randomBytes(output, static_cast<size_t>(length));
        return int(kOk);
    });
}

}  // extern "C"
