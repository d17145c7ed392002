// Finding a token key pair by the name applications use for it. Both front-ends name a key pair by
// the 32 upper-case hexadecimal characters of its 16-byte identifier; they differ in whether case
// counts and whether the label is accepted too, so those are parameters here.
#pragma once

#include <string>
#include <vector>

#include "token/device_library.h"

struct KeyNameMatch {
    bool ignoreCase;  // compare without regard to letter case (ASCII)
    bool orLabel;     // the key's label also names it
};

// CryptoAPI containers and the CNG key gate: the identifier text, exactly.
constexpr KeyNameMatch kExactKeyId{false, false};
// CryptoAPI token selection: the identifier text, any case.
constexpr KeyNameMatch kKeyIdIgnoringCase{true, false};
// CNG key selection once a key passed the gate: the identifier text or the label, exactly.
constexpr KeyNameMatch kKeyIdOrLabel{false, true};
// CNG token selection: the identifier text or the label, any case.
constexpr KeyNameMatch kKeyIdOrLabelIgnoringCase{true, true};

// 32 upper-case hexadecimal characters of a 16-byte key identifier.
std::string keyIdHex(const unsigned char* keyId);
std::string keyIdHex(const CalythKeyPair& keyPair);
// The label as a string (at most the record's 132 bytes, up to its first NUL).
std::string keyLabel(const CalythKeyPair& keyPair);

bool keyPairNamed(const CalythKeyPair& keyPair, const std::string& name, KeyNameMatch match);
// The first key pair of the list that the name names, or null.
const CalythKeyPair* findKeyPair(const std::vector<CalythKeyPair>& keyPairs, const std::string& name,
                                 KeyNameMatch match);
// The first key pair whose 16 identifier bytes equal keyId, or null.
const CalythKeyPair* findKeyPairById(const std::vector<CalythKeyPair>& keyPairs, const unsigned char* keyId);

// The token for a key name: the first connected token (in list order) holding a key pair that the
// name names; else the first connected token ("" when none is connected). An empty name gives the
// first connected token.
std::string deviceForKeyName(const std::string& name, KeyNameMatch match);
