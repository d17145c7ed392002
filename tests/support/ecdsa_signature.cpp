#include "support/ecdsa_signature.h"

namespace testsupport {
namespace {

using Bytes = std::vector<unsigned char>;

void appendLength(Bytes& out, size_t length) {
    if (length < 0x80) {
        out.push_back(static_cast<unsigned char>(length));
        return;
    }
    Bytes digits;
    for (; length; length >>= 8)
        digits.insert(digits.begin(), static_cast<unsigned char>(length));
    out.push_back(static_cast<unsigned char>(0x80 | digits.size()));
    out.insert(out.end(), digits.begin(), digits.end());
}

// A DER INTEGER of an unsigned big-endian number: no surplus leading zeros, a zero in front of a
// high first bit.
Bytes integer(Bytes value) {
    while (value.size() > 1 && value[0] == 0 && value[1] < 0x80)
        value.erase(value.begin());
    if (value.empty() || value[0] >= 0x80)
        value.insert(value.begin(), 0);
    Bytes out = {0x02};
    appendLength(out, value.size());
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

// Reads tag and length at `at`; the contents are [at, at + length) afterwards.
bool header(const Bytes& der, size_t& at, unsigned char tag, size_t& length) {
    if (at + 2 > der.size() || der[at] != tag)
        return false;
    length = der[at + 1];
    at += 2;
    if (length & 0x80) {
        size_t count = length & 0x7F;
        if (count == 0 || count > 2 || at + count > der.size())
            return false;
        length = 0;
        for (size_t i = 0; i < count; ++i)
            length = (length << 8) | der[at++];
    }
    return at + length <= der.size();
}

bool number(const Bytes& der, size_t& at, size_t width, Bytes& out) {
    size_t length = 0;
    if (!header(der, at, 0x02, length))
        return false;
    Bytes value(der.begin() + static_cast<long>(at), der.begin() + static_cast<long>(at + length));
    at += length;
    while (!value.empty() && value[0] == 0)
        value.erase(value.begin());
    if (value.size() > width)
        return false;
    out.insert(out.end(), width - value.size(), 0);
    out.insert(out.end(), value.begin(), value.end());
    return true;
}

}  // namespace

std::vector<unsigned char> ecdsaSignatureToDer(const std::vector<unsigned char>& rs) {
    size_t half = rs.size() / 2;
    Bytes content = integer(Bytes(rs.begin(), rs.begin() + static_cast<long>(half)));
    Bytes s = integer(Bytes(rs.begin() + static_cast<long>(half), rs.end()));
    content.insert(content.end(), s.begin(), s.end());
    Bytes out = {0x30};
    appendLength(out, content.size());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

std::vector<unsigned char> ecdsaSignatureFromDer(const std::vector<unsigned char>& der,
                                                 size_t coordinateLength) {
    size_t at = 0, length = 0;
    Bytes rs;
    if (!header(der, at, 0x30, length) || !number(der, at, coordinateLength, rs) ||
        !number(der, at, coordinateLength, rs))
        return {};
    return rs;
}

}  // namespace testsupport
