#include "public_key.h"

#include <algorithm>
#include <cstring>

#include "util/utils.h"

namespace softtoken {
namespace {

const char kRsaOid[] = "1.2.840.113549.1.1.1";
const char kEcOid[] = "1.2.840.10045.2.1";
// DER of the named-curve identifiers P-256, P-384, P-521 (indexed by size code - 5).
const Bytes kCurveOids[] = {
    {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07},
    {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22},
    {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23},
};
const Bytes kEcPublicKeyOid = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};

Bytes stripZeros(const Bytes& value) {
    size_t skip = 0;
    while (skip + 1 < value.size() && value[skip] == 0)
        ++skip;
    return Bytes(value.begin() + static_cast<long>(skip), value.end());
}

// An RSA public key from the PUBLICKEYBLOB that crypt32 decodes an RSAPublicKey into.
bool rsaFromCspBlob(const BYTE* blob, DWORD blobLength, PublicKey& out) {
    if (blobLength < sizeof(BLOBHEADER) + sizeof(RSAPUBKEY))
        return false;
    RSAPUBKEY header;
    std::memcpy(&header, blob + sizeof(BLOBHEADER), sizeof header);
    size_t modulusLength = header.bitlen / 8;
    if (header.magic != 0x31415352 || modulusLength == 0 ||
        blobLength < sizeof(BLOBHEADER) + sizeof(RSAPUBKEY) + modulusLength)
        return false;
    const BYTE* littleEndian = blob + sizeof(BLOBHEADER) + sizeof(RSAPUBKEY);
    Bytes modulus(littleEndian, littleEndian + modulusLength);
    std::reverse(modulus.begin(), modulus.end());
    Bytes exponent = {
        static_cast<unsigned char>(header.pubexp >> 24), static_cast<unsigned char>(header.pubexp >> 16),
        static_cast<unsigned char>(header.pubexp >> 8), static_cast<unsigned char>(header.pubexp)};
    out = PublicKey{};
    out.rsa = true;
    out.modulus = stripZeros(modulus);
    out.exponent = stripZeros(exponent);
    out.sizeCode = rsaSizeCode(out.bits());
    return true;
}

bool decodeRsaPublicKey(const BYTE* der, DWORD length, PublicKey& out) {
    BYTE* blob = nullptr;
    DWORD blobLength = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der, length, CRYPT_DECODE_ALLOC_FLAG,
                             nullptr, &blob, &blobLength))
        return false;
    bool ok = rsaFromCspBlob(blob, blobLength, out);
    LocalFree(blob);
    return ok;
}

bool ecFromPoint(const unsigned char* bytes, size_t length, int32_t sizeCode, PublicKey& out) {
    if (!isEcCode(sizeCode) || length != 2 * coordinateLength(sizeCode) + 1 || bytes[0] != 0x04)
        return false;
    out = PublicKey{};
    out.sizeCode = sizeCode;
    out.point.assign(bytes, bytes + length);
    return true;
}

int32_t sizeCodeForPointLength(size_t length) {
    for (int32_t code = 5; code <= 7; ++code)
        if (length == 2 * coordinateLength(code) + 1)
            return code;
    return 0;
}

}  // namespace

int32_t rsaSizeCode(size_t modulusBits) {
    for (int32_t code = 1; code <= 4; ++code)
        if (modulusBits == static_cast<size_t>(rsaBits(code)))
            return code;
    return 0;
}

bool parsePublicKeyInfo(const CERT_PUBLIC_KEY_INFO& info, PublicKey& out) {
    if (!info.Algorithm.pszObjId || !info.PublicKey.pbData)
        return false;
    if (std::strcmp(info.Algorithm.pszObjId, kRsaOid) == 0)
        return decodeRsaPublicKey(info.PublicKey.pbData, info.PublicKey.cbData, out);
    if (std::strcmp(info.Algorithm.pszObjId, kEcOid) != 0)
        return false;
    Bytes parameters(info.Algorithm.Parameters.pbData,
                     info.Algorithm.Parameters.pbData + info.Algorithm.Parameters.cbData);
    for (int32_t code = 5; code <= 7; ++code)
        if (parameters == kCurveOids[code - 5])
            return ecFromPoint(info.PublicKey.pbData, info.PublicKey.cbData, code, out);
    return false;
}

bool parsePublicKey(const unsigned char* bytes, int length, PublicKey& out) {
    if (!bytes || length <= 0)
        return false;
    if (bytes[0] == 0x30) {
        CERT_PUBLIC_KEY_INFO* info = nullptr;
        DWORD infoLength = 0;
        if (CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, bytes, static_cast<DWORD>(length),
                                CRYPT_DECODE_ALLOC_FLAG, nullptr, &info, &infoLength)) {
            bool ok = parsePublicKeyInfo(*info, out);
            LocalFree(info);
            return ok;
        }
        return decodeRsaPublicKey(bytes, static_cast<DWORD>(length), out);
    }
    if (bytes[0] == 0x04 && sizeCodeForPointLength(static_cast<size_t>(length)) != 0)
        return ecFromPoint(bytes, static_cast<size_t>(length),
                           sizeCodeForPointLength(static_cast<size_t>(length)), out);
    // A raw modulus: the token keeps RSA keys with e = 65537.
    out = PublicKey{};
    out.rsa = true;
    out.modulus = stripZeros(Bytes(bytes, bytes + length));
    out.exponent = {0x01, 0x00, 0x01};
    out.sizeCode = rsaSizeCode(out.bits());
    return !out.modulus.empty() && out.modulus[0] != 0;
}

Bytes comparableForm(const PublicKey& key) {
    return key.rsa ? key.modulus : key.point;
}

Bytes subjectPublicKeyInfo(const PublicKey& key) {
    Utils utils;
    if (key.rsa)
        return buildRsaSubjectPublicKeyInfo(
            utils.bytesToHex(key.modulus.data(), static_cast<int>(key.modulus.size())),
            utils.bytesToHex(key.exponent.data(), static_cast<int>(key.exponent.size())));
    if (!isEcCode(key.sizeCode))
        return {};
    Bytes algorithm = kEcPublicKeyOid;
    const Bytes& curve = kCurveOids[key.sizeCode - 5];
    algorithm.insert(algorithm.end(), curve.begin(), curve.end());
    Bytes bitString = {0x00};
    bitString.insert(bitString.end(), key.point.begin(), key.point.end());
    Bytes body = encodeDerTlv(0x30, algorithm);
    Bytes keyBits = encodeDerTlv(0x03, bitString);
    body.insert(body.end(), keyBits.begin(), keyBits.end());
    return encodeDerTlv(0x30, body);
}

}  // namespace softtoken
