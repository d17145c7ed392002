#include "private_key_file.h"

#include <gcrypt.h>

#include "certificate.h"
#include "crypto.h"
#include "public_key.h"
#include "status.h"

namespace softtoken {
namespace {

// A stretch of DER bytes that is read from the front.
struct DerView {
    const unsigned char* at = nullptr;
    const unsigned char* end = nullptr;
    bool empty() const { return at >= end; }
    Bytes bytes() const { return Bytes(at, end); }
};

// Takes one element (tag, length, contents) off the front of `in`. Only the short tags and the
// definite lengths of DER occur in key files.
bool take(DerView& in, unsigned char& tag, DerView& contents) {
    if (in.end - in.at < 2)
        return false;
    tag = in.at[0];
    size_t length = in.at[1];
    const unsigned char* p = in.at + 2;
    if (length & 0x80) {
        size_t count = length & 0x7F;
        if (count == 0 || count > 4 || static_cast<size_t>(in.end - p) < count)
            return false;
        length = 0;
        for (size_t i = 0; i < count; ++i)
            length = (length << 8) | *p++;
    }
    if (static_cast<size_t>(in.end - p) < length)
        return false;
    contents = {p, p + length};
    in.at = p + length;
    return true;
}

bool takeTagged(DerView& in, unsigned char wantedTag, DerView& contents) {
    unsigned char tag = 0;
    return take(in, tag, contents) && tag == wantedTag;
}

const Bytes kRsaEncryption = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
const Bytes kEcPublicKey = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
// Contents of the named-curve identifiers P-256, P-384, P-521 (size codes 5, 6, 7).
const Bytes kCurves[] = {
    {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07},
    {0x2B, 0x81, 0x04, 0x00, 0x22},
    {0x2B, 0x81, 0x04, 0x00, 0x23},
};

int32_t curveCode(const Bytes& oid) {
    for (int32_t i = 0; i < 3; ++i)
        if (oid == kCurves[i])
            return 5 + i;
    return 0;
}

struct Mpi {
    gcry_mpi_t m = nullptr;
    ~Mpi() { gcry_mpi_release(m); }
};

struct Sexp {
    gcry_sexp_t s = nullptr;
    ~Sexp() { gcry_sexp_release(s); }
};

bool scan(const DerView& integer, Mpi& out) {
    return !integer.empty() &&
           gcry_mpi_scan(&out.m, GCRYMPI_FMT_USG, integer.at, integer.end - integer.at, nullptr) == 0;
}

Bytes unsignedBytes(gcry_mpi_t mpi) {
    size_t length = 0;
    if (gcry_mpi_print(GCRYMPI_FMT_USG, nullptr, 0, &length, mpi) != 0)
        return {};
    Bytes out(length);
    if (length == 0 || gcry_mpi_print(GCRYMPI_FMT_USG, out.data(), out.size(), &length, mpi) != 0)
        return {};
    out.resize(length);
    return out;
}

// The canonical text of a private-key S-expression, checked by libgcrypt first.
int canonical(Sexp& key, Bytes& out) {
    if (gcry_pk_testkey(key.s) != 0)
        return kCryptoFailure;
    size_t length = gcry_sexp_sprint(key.s, GCRYSEXP_FMT_CANON, nullptr, 0);
    out.assign(length, 0);
    if (length == 0 || gcry_sexp_sprint(key.s, GCRYSEXP_FMT_CANON, out.data(), length) == 0)
        return kCryptoFailure;
    while (!out.empty() && out.back() == 0)
        out.pop_back();
    return kOk;
}

// RSAPrivateKey ::= SEQUENCE { version, n, e, d, p, q, dp, dq, qinv }
int readRsa(DerView in, ImportedKeyPair& out) {
    DerView sequence, version;
    DerView parts[8];
    if (!takeTagged(in, 0x30, sequence) || !takeTagged(sequence, 0x02, version))
        return kBadArgument;
    for (DerView& part : parts)
        if (!takeTagged(sequence, 0x02, part))
            return kBadArgument;
    Mpi n, e, d, p, q, u;
    if (!scan(parts[0], n) || !scan(parts[1], e) || !scan(parts[2], d) || !scan(parts[3], p) ||
        !scan(parts[4], q))
        return kBadArgument;
    // libgcrypt wants p < q and u = p^-1 mod q.
    if (gcry_mpi_cmp(p.m, q.m) > 0)
        std::swap(p.m, q.m);
    u.m = gcry_mpi_new(0);
    if (!gcry_mpi_invm(u.m, p.m, q.m))
        return kCryptoFailure;
    out.publicKey = unsignedBytes(n.m);
    out.sizeCode = rsaSizeCode(gcry_mpi_get_nbits(n.m));
    if (out.sizeCode == 0)
        return kNotSupported;
    Sexp key;
    if (gcry_sexp_build(&key.s, nullptr, "(private-key (rsa (n %m) (e %m) (d %m) (p %m) (q %m) (u %m)))", n.m,
                        e.m, d.m, p.m, q.m, u.m) != 0)
        return kCryptoFailure;
    return canonical(key, out.privateKey);
}

// The public point d * G of the curve, for a key file that leaves it out.
Bytes publicPoint(const char* curve, gcry_mpi_t d) {
    Sexp key;
    gcry_ctx_t context = nullptr;
    if (gcry_sexp_build(&key.s, nullptr, "(private-key (ecc (curve %s) (d %m)))", curve, d) != 0 ||
        gcry_mpi_ec_new(&context, key.s, nullptr) != 0)
        return {};
    Bytes point;
    gcry_mpi_t q = gcry_mpi_ec_get_mpi("q", context, 1);
    if (q && gcry_mpi_get_flag(q, GCRYMPI_FLAG_OPAQUE)) {
        unsigned int bits = 0;
        const unsigned char* data = static_cast<const unsigned char*>(gcry_mpi_get_opaque(q, &bits));
        point.assign(data, data + (bits + 7) / 8);
    } else if (q) {
        point = unsignedBytes(q);
    }
    gcry_mpi_release(q);
    gcry_ctx_release(context);
    return point;
}

// ECPrivateKey ::= SEQUENCE { version 1, privateKey OCTET STRING, [0] curve OPTIONAL,
//                             [1] publicKey BIT STRING OPTIONAL }
// `curveFromAlgorithm` is the curve that PKCS #8 names outside (0 for a SEC1 file).
int readEc(DerView in, int32_t curveFromAlgorithm, ImportedKeyPair& out) {
    DerView sequence, version, secret;
    if (!takeTagged(in, 0x30, sequence) || !takeTagged(sequence, 0x02, version) ||
        !takeTagged(sequence, 0x04, secret))
        return kBadArgument;
    int32_t code = curveFromAlgorithm;
    Bytes point;
    while (!sequence.empty()) {
        unsigned char tag = 0;
        DerView field, inner;
        if (!take(sequence, tag, field))
            return kBadArgument;
        if (tag == 0xA0 && takeTagged(field, 0x06, inner))
            code = code ? code : curveCode(inner.bytes());
        else if (tag == 0xA1 && takeTagged(field, 0x03, inner) && inner.end - inner.at > 1)
            point.assign(inner.at + 1, inner.end);  // after the unused-bits byte
    }
    if (code == 0)
        return kNotSupported;
    const char* curve = curveName(code);
    Mpi d;
    if (!scan(secret, d))
        return kBadArgument;
    if (point.empty())
        point = publicPoint(curve, d.m);
    if (point.size() != 2 * coordinateLength(code) + 1 || point[0] != 0x04)
        return kNotSupported;
    out.sizeCode = code;
    out.publicKey = point;
    Sexp key;
    if (gcry_sexp_build(&key.s, nullptr, "(private-key (ecc (curve %s) (q %b) (d %m)))", curve,
                        static_cast<int>(point.size()), point.data(), d.m) != 0)
        return kCryptoFailure;
    return canonical(key, out.privateKey);
}

// PrivateKeyInfo ::= SEQUENCE { version, AlgorithmIdentifier { oid, parameters }, OCTET STRING }
// A PKCS #1 or SEC1 key has an INTEGER where PKCS #8 has the algorithm SEQUENCE.
int readAny(const Bytes& der, ImportedKeyPair& out) {
    DerView all{der.data(), der.data() + der.size()};
    DerView sequence, version, second;
    unsigned char secondTag = 0;
    DerView probe = all;
    if (!takeTagged(probe, 0x30, sequence) || !takeTagged(sequence, 0x02, version) ||
        !take(sequence, secondTag, second))
        return kBadArgument;
    if (secondTag == 0x02)
        return readRsa(all, out);
    if (secondTag == 0x04)
        return readEc(all, 0, out);
    if (secondTag != 0x30)
        return kBadArgument;
    DerView algorithm, parameters, inner;
    if (!takeTagged(second, 0x06, algorithm) || !takeTagged(sequence, 0x04, inner))
        return kBadArgument;
    if (algorithm.bytes() == kRsaEncryption)
        return readRsa(inner, out);
    if (algorithm.bytes() != kEcPublicKey)
        return kNotSupported;
    if (!takeTagged(second, 0x06, parameters))
        return kNotSupported;
    int32_t code = curveCode(parameters.bytes());
    return code ? readEc(inner, code, out) : kNotSupported;
}

}  // namespace

int readPrivateKeyFile(const Bytes& content, ImportedKeyPair& out) {
    ensureCryptoReady();
    Bytes der = toDer(content);
    if (der.empty())
        return kBadArgument;
    out = ImportedKeyPair{};
    return readAny(der, out);
}

}  // namespace softtoken
