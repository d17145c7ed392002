#include "reference.h"

namespace bench {

KeyPtr freshKey(int32_t sizeCode) {
    softtoken::ensureCryptoReady();
    Bytes publicKey, privateKey;
    if (softtoken::generateKeyPair(sizeCode, publicKey, privateKey) != 0)
        return nullptr;
    return softtoken::PrivateKey::fromCanonical(privateKey, sizeCode);
}

KeyPtr parsedKey(const softtoken::KeyRecord& record) {
    softtoken::ensureCryptoReady();
    return softtoken::PrivateKey::fromCanonical(record.privateKey, record.sizeCode);
}

bool referenceSign(const softtoken::PrivateKey& key, const Bytes& digest) {
    Bytes signature;
    return softtoken::signDigest(key, digest.data(), static_cast<int>(digest.size()), false, signature) == 0;
}

const Bytes& sampleDocument() {
    static const Bytes document(1024, 0x42);
    return document;
}

const Bytes& sampleDigest() {
    static const Bytes digest(32, 0x24);
    return digest;
}

}  // namespace bench
