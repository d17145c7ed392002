#include "csp/hash_algorithms.h"

#include "token/device_library.h"

namespace {

// Tested in this order. "Crete" is how these lines have always read in the log.
const HashAlgorithm kHashAlgorithms[] = {
    {CALG_SHA1, CALYTH_HASH_SHA1, 20, "Crete hash algorithm sha1"},
    {CALG_SHA_256, CALYTH_HASH_SHA256, 32, "Crete hash algorithm 256"},
    {CALG_SHA_384, CALYTH_HASH_SHA384, 48, "Crete hash algorithm 384"},
    {CALG_SHA_512, CALYTH_HASH_SHA512, 64, "Crete hash algorithm 512"},
};

}  // namespace

const HashAlgorithm* hashAlgorithmByAlgId(ALG_ID algId) {
    for (const HashAlgorithm& algorithm : kHashAlgorithms) {
        if (algorithm.algId == algId)
            return &algorithm;
    }
    return nullptr;
}

const HashAlgorithm* hashAlgorithmByMechanism(int32_t mechanism) {
    for (const HashAlgorithm& algorithm : kHashAlgorithms) {
        if (algorithm.mechanism == mechanism)
            return &algorithm;
    }
    return nullptr;
}
