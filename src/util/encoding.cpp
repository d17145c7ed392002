#include "util/encoding.h"

#include "util/utils.h"

namespace {

// rsaEncryption (1.2.840.113549.1.1.1) with a NULL parameter.
const unsigned char kRsaAlgorithmIdentifier[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

int hexDigitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 0;
}

// An INTEGER's content must not look negative: a first byte with the top bit set gets a 0x00 in
// front. Leading zero bytes already there are kept.
Bytes positiveInteger(Bytes value) {
    if (!value.empty() && value.front() >= 0x80) {
        value.insert(value.begin(), 0x00);
    }
    return value;
}

}  // namespace

Bytes hexToBytes(const std::string& text) {
    std::string digits = text;
    if (digits.size() >= 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits.erase(0, 2);
    }
    if (digits.size() % 2 != 0) {
        digits.insert(digits.begin(), '0');
    }
    Bytes out;
    out.reserve(digits.size() / 2);
    for (size_t i = 0; i < digits.size(); i += 2) {
        out.push_back(
            static_cast<unsigned char>(hexDigitValue(digits[i]) << 4 | hexDigitValue(digits[i + 1])));
    }
    return out;
}

Bytes encodeDerLength(size_t length) {
    if (length < 0x80) {
        return Bytes{static_cast<unsigned char>(length)};
    }
    Bytes bigEndian;
    for (size_t rest = length; rest != 0; rest >>= 8) {
        bigEndian.insert(bigEndian.begin(), static_cast<unsigned char>(rest & 0xFF));
    }
    bigEndian.insert(bigEndian.begin(), static_cast<unsigned char>(0x80 | bigEndian.size()));
    return bigEndian;
}

Bytes encodeDerTlv(unsigned char tag, const Bytes& content) {
    Bytes out{tag};
    Bytes length = encodeDerLength(content.size());
    out.insert(out.end(), length.begin(), length.end());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes buildRsaSubjectPublicKeyInfo(const std::string& modulusHex, const std::string& exponentHex) {
    Bytes integers = encodeDerTlv(0x02, positiveInteger(hexToBytes(modulusHex)));
    Bytes exponent = encodeDerTlv(0x02, positiveInteger(hexToBytes(exponentHex)));
    integers.insert(integers.end(), exponent.begin(), exponent.end());
    Bytes rsaPublicKey = encodeDerTlv(0x30, integers);

    Bytes bitStringContent{0x00};  // no unused bits
    bitStringContent.insert(bitStringContent.end(), rsaPublicKey.begin(), rsaPublicKey.end());
    Bytes bitString = encodeDerTlv(0x03, bitStringContent);

    Bytes spki(std::begin(kRsaAlgorithmIdentifier), std::end(kRsaAlgorithmIdentifier));
    spki.insert(spki.end(), bitString.begin(), bitString.end());
    return encodeDerTlv(0x30, spki);
}

bool isDerPublicKey(const unsigned char* bytes, int length) {
    return length < 1 || bytes[0] == 0x30;
}

Bytes derPublicKeyFromStored(const unsigned char* bytes, int length) {
    if (isDerPublicKey(bytes, length)) {
        return length > 0 ? Bytes(bytes, bytes + length) : Bytes();
    }
    Utils utils;
    return buildRsaSubjectPublicKeyInfo(utils.bytesToHex(bytes, length), "010001");
}

uint32_t keySizeCodeToBits(int32_t code) {
    switch (code) {
        case 1:
            return 1024;
        case 2:
            return 2048;
        case 3:
            return 3072;
        case 4:
            return 4096;
        case 5:
            return 256;
        case 6:
            return 384;
        case 7:
            return 521;
        default:
            return 0;
    }
}

const wchar_t* eccAlgorithmName(int32_t code, int32_t keyUsage) {
    if (code < 1 || code > 7)
        return L"RSA";
    bool exchange = keyUsage == 2;
    switch (code) {
        case 5:
            return exchange ? L"ECDH_P256" : L"ECDSA_P256";
        case 6:
            return exchange ? L"ECDH_P384" : L"ECDSA_P384";
        case 7:
            return exchange ? L"ECDH_P521" : L"ECDSA_P521";
        default:
            return L"RSA";
    }
}

namespace {

// One DER element at [*position, end): its tag and content; *position moves past it.
bool readDerElement(const unsigned char** position, const unsigned char* end, unsigned char* tag,
                    const unsigned char** content, size_t* contentLength) {
    const unsigned char* p = *position;
    if (end - p < 2)
        return false;
    *tag = *p++;
    size_t length = *p++;
    if (length & 0x80) {
        size_t lengthBytes = length & 0x7F;
        if (lengthBytes == 0 || lengthBytes > 4 || static_cast<size_t>(end - p) < lengthBytes)
            return false;
        length = 0;
        for (size_t i = 0; i < lengthBytes; ++i)
            length = length << 8 | *p++;
    }
    if (static_cast<size_t>(end - p) < length)
        return false;
    *content = p;
    *contentLength = length;
    *position = p + length;
    return true;
}

// RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER }
bool modulusFromRsaPublicKey(const unsigned char* p, const unsigned char* end, Bytes* modulus) {
    unsigned char tag = 0;
    const unsigned char* content = nullptr;
    size_t length = 0;
    if (!readDerElement(&p, end, &tag, &content, &length) || tag != 0x30)
        return false;
    const unsigned char* inner = content;
    if (!readDerElement(&inner, content + length, &tag, &content, &length) || tag != 0x02 || length == 0)
        return false;
    while (length > 1 && *content == 0x00) {
        ++content;
        --length;
    }
    modulus->assign(content, content + length);
    return true;
}

}  // namespace

bool rsaModulusFromDer(const unsigned char* der, int length, Bytes* modulus) {
    if (der == nullptr || length < 2)
        return false;
    const unsigned char* end = der + length;
    const unsigned char* p = der;
    unsigned char tag = 0;
    const unsigned char* content = nullptr;
    size_t contentLength = 0;
    if (!readDerElement(&p, end, &tag, &content, &contentLength) || tag != 0x30)
        return false;
    // A SubjectPublicKeyInfo starts with the AlgorithmIdentifier SEQUENCE; an RSAPublicKey with the
    // modulus INTEGER.
    const unsigned char* inner = content;
    const unsigned char* innerEnd = content + contentLength;
    const unsigned char* first = nullptr;
    size_t firstLength = 0;
    if (!readDerElement(&inner, innerEnd, &tag, &first, &firstLength))
        return false;
    if (tag == 0x02)
        return modulusFromRsaPublicKey(der, end, modulus);
    if (tag != 0x30)
        return false;
    const unsigned char* bits = nullptr;
    size_t bitsLength = 0;
    if (!readDerElement(&inner, innerEnd, &tag, &bits, &bitsLength) || tag != 0x03 || bitsLength < 1 ||
        bits[0] != 0x00)
        return false;
    return modulusFromRsaPublicKey(bits + 1, bits + bitsLength, modulus);
}
