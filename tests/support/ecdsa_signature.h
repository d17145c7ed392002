// ECDSA signatures in their two forms: r||s, each half as long as the curve's coordinates (the
// token's and CNG's form), and the DER ECDSA-Sig-Value SEQUENCE { r INTEGER, s INTEGER } that
// OpenSSL reads and writes.
#pragma once

#include <cstddef>
#include <vector>

namespace testsupport {

std::vector<unsigned char> ecdsaSignatureToDer(const std::vector<unsigned char>& rs);
// Empty when `der` is no ECDSA-Sig-Value or a number is longer than coordinateLength.
std::vector<unsigned char> ecdsaSignatureFromDer(const std::vector<unsigned char>& der,
                                                 size_t coordinateLength);

}  // namespace testsupport
