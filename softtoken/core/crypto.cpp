#include "crypto.h"

#include <gcrypt.h>

#include <cstring>
#include <mutex>

#ifdef _WIN32
#include "entropy_poll.h"
#endif
#include "status.h"

namespace softtoken {
namespace {

// libgcrypt's own informational lines (such as the note of its Windows entropy gatherer) would
// land on the host program's stderr; the token keeps quiet.
void quietLog(void*, int, const char*, va_list) {}

struct Sexp {
    gcry_sexp_t s = nullptr;
    ~Sexp() { gcry_sexp_release(s); }
    operator gcry_sexp_t() const { return s; }
};

struct Mpi {
    gcry_mpi_t m = nullptr;
    ~Mpi() { gcry_mpi_release(m); }
};

Bytes mpiToBytes(gcry_mpi_t mpi) {
    size_t length = 0;
    if (gcry_mpi_print(GCRYMPI_FMT_USG, nullptr, 0, &length, mpi) != 0)
        return {};
    Bytes out(length);
    if (length > 0 && gcry_mpi_print(GCRYMPI_FMT_USG, out.data(), out.size(), &length, mpi) != 0)
        return {};
    out.resize(length);
    return out;
}

// Left-pads with zeros to `length`; false when the value is longer.
bool padTo(Bytes& value, size_t length) {
    if (value.size() > length)
        return false;
    value.insert(value.begin(), length - value.size(), 0);
    return true;
}

Bytes stripLeadingZeros(const unsigned char* bytes, size_t length) {
    size_t skip = 0;
    while (skip + 1 < length && bytes[skip] == 0)
        ++skip;
    return Bytes(bytes + skip, bytes + length);
}

// The unsigned integer `name` of an S-expression, as big-endian bytes.
bool findInteger(gcry_sexp_t sexp, const char* name, Bytes& out) {
    Sexp token;
    token.s = gcry_sexp_find_token(sexp, name, 0);
    if (!token.s)
        return false;
    Mpi mpi;
    mpi.m = gcry_sexp_nth_mpi(token, 1, GCRYMPI_FMT_USG);
    if (!mpi.m)
        return false;
    out = mpiToBytes(mpi.m);
    return true;
}

// The data atom of `name` as it stands (points, plaintexts).
bool findData(gcry_sexp_t sexp, const char* name, Bytes& out) {
    Sexp token;
    token.s = gcry_sexp_find_token(sexp, name, 0);
    if (!token.s)
        return false;
    size_t length = 0;
    const char* data = gcry_sexp_nth_data(token, 1, &length);
    if (!data)
        return false;
    out.assign(data, data + length);
    return true;
}

bool scanUnsigned(const unsigned char* bytes, size_t length, Mpi& out) {
    return gcry_mpi_scan(&out.m, GCRYMPI_FMT_USG, bytes, length, nullptr) == 0;
}

int publicKeySexp(const PublicKey& key, Sexp& out) {
    if (key.rsa) {
        Mpi n, e;
        if (key.modulus.empty() || key.exponent.empty() ||
            !scanUnsigned(key.modulus.data(), key.modulus.size(), n) ||
            !scanUnsigned(key.exponent.data(), key.exponent.size(), e))
            return kBadArgument;
        return gcry_sexp_build(&out.s, nullptr, "(public-key (rsa (n %m) (e %m)))", n.m, e.m) == 0
                   ? kOk
                   : kCryptoFailure;
    }
    const char* curve = curveName(key.sizeCode);
    if (!curve || key.point.size() != 2 * coordinateLength(key.sizeCode) + 1 || key.point[0] != 0x04)
        return kBadArgument;
    return gcry_sexp_build(&out.s, nullptr, "(public-key (ecc (curve %s) (q %b)))", curve,
                           static_cast<int>(key.point.size()), key.point.data()) == 0
               ? kOk
               : kCryptoFailure;
}

// The data S-expression of a digest: RSA names the hash (DigestInfo or PSS), ECDSA takes the
// digest as a bit string so that a digest longer than the curve is cut from the left.
int digestSexp(bool rsa, bool pss, const unsigned char* digest, int digestLength, Sexp& out) {
    const char* hash = hashNameForLength(digestLength);
    gcry_error_t err;
    if (rsa) {
        if (!hash)
            return kBadArgument;
        if (pss)
            err = gcry_sexp_build(&out.s, nullptr, "(data (flags pss) (salt-length %d) (hash %s %b))",
                                  digestLength, hash, digestLength, digest);
        else
            err = gcry_sexp_build(&out.s, nullptr, "(data (flags pkcs1) (hash %s %b))", hash, digestLength,
                                  digest);
    } else {
        // The hash name only tells libgcrypt that the value is a bit string; any digest length works.
        err = gcry_sexp_build(&out.s, nullptr, "(data (flags raw) (hash %s %b))", hash ? hash : "sha256",
                              digestLength, digest);
    }
    return err == 0 ? kOk : kCryptoFailure;
}

}  // namespace

void ensureCryptoReady() {
    static std::once_flag once;
    std::call_once(once, [] {
#ifdef _WIN32
        keepEntropyPollOffHandleLists();
#endif
        gcry_set_log_handler(quietLog, nullptr);
        gcry_check_version(nullptr);
        gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    });
}

void randomBytes(unsigned char* out, size_t length) {
    ensureCryptoReady();
    gcry_randomize(out, length, GCRY_STRONG_RANDOM);
}

Bytes randomVector(size_t length) {
    Bytes out(length);
    randomBytes(out.data(), length);
    return out;
}

Bytes sha1(const Bytes& data) {
    ensureCryptoReady();
    Bytes out(20);
    gcry_md_hash_buffer(GCRY_MD_SHA1, out.data(), data.data(), data.size());
    return out;
}

bool isRsaCode(int32_t sizeCode) {
    return sizeCode >= 1 && sizeCode <= 4;
}
bool isEcCode(int32_t sizeCode) {
    return sizeCode >= 5 && sizeCode <= 7;
}

int rsaBits(int32_t sizeCode) {
    static const int bits[] = {1024, 2048, 3072, 4096};
    return isRsaCode(sizeCode) ? bits[sizeCode - 1] : 0;
}

const char* curveName(int32_t sizeCode) {
    static const char* names[] = {"NIST P-256", "NIST P-384", "NIST P-521"};
    return isEcCode(sizeCode) ? names[sizeCode - 5] : nullptr;
}

size_t coordinateLength(int32_t sizeCode) {
    static const size_t lengths[] = {32, 48, 66};
    return isEcCode(sizeCode) ? lengths[sizeCode - 5] : 0;
}

const char* hashNameForLength(int digestLength) {
    switch (digestLength) {
        case 20:
            return "sha1";
        case 32:
            return "sha256";
        case 48:
            return "sha384";
        case 64:
            return "sha512";
        default:
            return nullptr;
    }
}

size_t PublicKey::bits() const {
    if (!rsa)
        return coordinateLength(sizeCode) == 66 ? 521 : coordinateLength(sizeCode) * 8;
    if (modulus.empty())
        return 0;
    size_t bits = modulus.size() * 8;
    for (unsigned char top = modulus[0]; !(top & 0x80); top <<= 1)
        --bits;
    return bits;
}

std::shared_ptr<PrivateKey> PrivateKey::fromCanonical(const Bytes& canonical, int32_t sizeCode) {
    ensureCryptoReady();
    if (canonical.empty() || (!isRsaCode(sizeCode) && !isEcCode(sizeCode)))
        return nullptr;
    gcry_sexp_t sexp = nullptr;
    if (gcry_sexp_new(&sexp, canonical.data(), canonical.size(), 1) != 0)
        return nullptr;
    unsigned int bits = gcry_pk_get_nbits(sexp);
    bool rsa = isRsaCode(sizeCode);
    Sexp algorithm;
    algorithm.s = gcry_sexp_find_token(sexp, rsa ? "rsa" : "ecc", 0);
    if (bits == 0 || !algorithm.s || (rsa && static_cast<int>(bits) != rsaBits(sizeCode))) {
        gcry_sexp_release(sexp);
        return nullptr;
    }
    return std::shared_ptr<PrivateKey>(new PrivateKey(sexp, sizeCode, (bits + 7) / 8));
}

PrivateKey::~PrivateKey() {
    gcry_sexp_release(sexp_);
}

size_t PrivateKey::signatureLength() const {
    return isEcCode(sizeCode_) ? 2 * coordinateLength(sizeCode_) : modulusLength_;
}

int generateKeyPair(int32_t sizeCode, Bytes& publicKey, Bytes& privateKey) {
    ensureCryptoReady();
    Sexp parameters;
    gcry_error_t err;
    if (isRsaCode(sizeCode))
        err = gcry_sexp_build(&parameters.s, nullptr, "(genkey (rsa (nbits %d) (rsa-use-e 5:65537)))",
                              rsaBits(sizeCode));
    else if (isEcCode(sizeCode))
        err = gcry_sexp_build(&parameters.s, nullptr, "(genkey (ecc (curve %s)))", curveName(sizeCode));
    else
        return kNotSupported;
    if (err != 0)
        return kCryptoFailure;
    Sexp pair, priv, pub;
    if (gcry_pk_genkey(&pair.s, parameters) != 0)
        return kCryptoFailure;
    priv.s = gcry_sexp_find_token(pair, "private-key", 0);
    pub.s = gcry_sexp_find_token(pair, "public-key", 0);
    if (!priv.s || !pub.s)
        return kCryptoFailure;
    if (isRsaCode(sizeCode)) {
        if (!findInteger(pub, "n", publicKey) ||
            publicKey.size() * 8 != static_cast<size_t>(rsaBits(sizeCode)))
            return kCryptoFailure;
    } else if (!findData(pub, "q", publicKey) || publicKey.size() != 2 * coordinateLength(sizeCode) + 1 ||
               publicKey[0] != 0x04) {
        return kCryptoFailure;
    }
    size_t length = gcry_sexp_sprint(priv, GCRYSEXP_FMT_CANON, nullptr, 0);
    privateKey.assign(length, 0);
    if (length == 0 || gcry_sexp_sprint(priv, GCRYSEXP_FMT_CANON, privateKey.data(), length) == 0)
        return kCryptoFailure;
    privateKey.resize(length);
    // The canonical form ends without a terminating zero, but sprint counts one in.
    while (!privateKey.empty() && privateKey.back() == 0)
        privateKey.pop_back();
    return kOk;
}

int signDigest(const PrivateKey& key, const unsigned char* digest, int digestLength, bool pss,
               Bytes& signature) {
    ensureCryptoReady();
    if (!digest || digestLength <= 0)
        return kBadArgument;
    bool rsa = isRsaCode(key.sizeCode());
    Sexp data, result;
    int status = digestSexp(rsa, pss, digest, digestLength, data);
    if (status != kOk)
        return status;
    if (gcry_pk_sign(&result.s, data, key.sexp()) != 0)
        return kCryptoFailure;
    if (rsa) {
        if (!findInteger(result, "s", signature) || !padTo(signature, key.signatureLength()))
            return kCryptoFailure;
        return kOk;
    }
    Bytes r, s;
    size_t half = coordinateLength(key.sizeCode());
    if (!findInteger(result, "r", r) || !findInteger(result, "s", s) || !padTo(r, half) || !padTo(s, half))
        return kCryptoFailure;
    signature = r;
    signature.insert(signature.end(), s.begin(), s.end());
    return kOk;
}

int verifyDigest(const PublicKey& key, const unsigned char* digest, int digestLength,
                 const unsigned char* signature, int signatureLength, bool pss) {
    ensureCryptoReady();
    if (!digest || digestLength <= 0 || !signature || signatureLength <= 0)
        return kBadArgument;
    Sexp pub, data, sig;
    int status = publicKeySexp(key, pub);
    if (status != kOk)
        return status;
    status = digestSexp(key.rsa, pss, digest, digestLength, data);
    if (status != kOk)
        return status;
    gcry_error_t err;
    if (key.rsa) {
        Mpi s;
        if (static_cast<size_t>(signatureLength) > key.modulus.size() ||
            !scanUnsigned(signature, static_cast<size_t>(signatureLength), s))
            return kBadSignature;
        err = gcry_sexp_build(&sig.s, nullptr, "(sig-val (rsa (s %m)))", s.m);
    } else {
        size_t half = coordinateLength(key.sizeCode);
        Mpi r, s;
        if (static_cast<size_t>(signatureLength) != 2 * half || !scanUnsigned(signature, half, r) ||
            !scanUnsigned(signature + half, half, s))
            return kBadSignature;
        err = gcry_sexp_build(&sig.s, nullptr, "(sig-val (ecdsa (r %m) (s %m)))", r.m, s.m);
    }
    if (err != 0)
        return kCryptoFailure;
    return gcry_pk_verify(sig, data, pub) == 0 ? kOk : kBadSignature;
}

int rsaEncrypt(const PublicKey& key, int padding, const unsigned char* data, int dataLength, Bytes& out) {
    ensureCryptoReady();
    if (!key.rsa)
        return kNotSupported;
    if (!data || dataLength <= 0)
        return kBadArgument;  // libgcrypt has no empty message
    Sexp pub, plain, result;
    int status = publicKeySexp(key, pub);
    if (status != kOk)
        return status;
    gcry_error_t err;
    if (padding == 1)
        err = gcry_sexp_build(&plain.s, nullptr, "(data (flags pkcs1) (value %b))", dataLength, data);
    else if (padding == 4)
        err = gcry_sexp_build(&plain.s, nullptr, "(data (flags oaep) (hash-algo sha1) (value %b))",
                              dataLength, data);
    else
        return kNotSupported;
    if (err != 0)
        return kCryptoFailure;
    if (gcry_pk_encrypt(&result.s, plain, pub) != 0)
        return kBadArgument;  // the message does not fit the modulus with this padding
    if (!findInteger(result, "a", out) || !padTo(out, key.modulus.size()))
        return kCryptoFailure;
    return kOk;
}

int rsaDecrypt(const PrivateKey& key, const unsigned char* data, int dataLength, Bytes& out) {
    ensureCryptoReady();
    if (!isRsaCode(key.sizeCode()))
        return kNotSupported;
    if (!data || dataLength <= 0 || static_cast<size_t>(dataLength) > key.signatureLength())
        return kBadArgument;
    Mpi a;
    if (!scanUnsigned(data, static_cast<size_t>(dataLength), a))
        return kBadArgument;
    // OAEP first: a PKCS #1 v1.5 block never passes the OAEP check, while about one OAEP block in
    // five hundred looks like valid PKCS #1 v1.5 padding and would decode to garbage.
    static const char* const forms[] = {"(enc-val (flags oaep) (hash-algo sha1) (rsa (a %m)))",
                                        "(enc-val (flags pkcs1) (rsa (a %m)))"};
    for (const char* form : forms) {
        Sexp cipher, result;
        if (gcry_sexp_build(&cipher.s, nullptr, form, a.m) != 0)
            return kCryptoFailure;
        if (gcry_pk_decrypt(&result.s, cipher, key.sexp()) == 0 && findData(result, "value", out))
            return kOk;
    }
    return kDecryptFailed;
}

int ecdhSharedSecret(const PrivateKey& key, const unsigned char* peer, int peerLength, Bytes& secret) {
    ensureCryptoReady();
    if (!isEcCode(key.sizeCode()))
        return kNotSupported;
    size_t half = coordinateLength(key.sizeCode());
    if (!peer || static_cast<size_t>(peerLength) != 2 * half + 1 || peer[0] != 0x04)
        return kBadArgument;
    Sexp cipher, result;
    if (gcry_sexp_build(&cipher.s, nullptr, "(enc-val (ecdh (e %b)))", peerLength, peer) != 0)
        return kCryptoFailure;
    if (gcry_pk_decrypt(&result.s, cipher, key.sexp()) != 0)
        return kBadArgument;  // not a point of the curve
    Bytes point;
    if (!findData(result, "value", point))
        return kCryptoFailure;
    Bytes value = stripLeadingZeros(point.data(), point.size());
    if (value.size() != 2 * half + 1 || value[0] != 0x04)
        return kCryptoFailure;
    secret.assign(value.data() + 1, value.data() + 1 + half);
    return kOk;
}

}  // namespace softtoken
