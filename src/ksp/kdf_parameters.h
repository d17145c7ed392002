// The parameter list of KSPDeriveKey (a BCryptBufferDesc), read into owned copies so that nothing
// later looks at the caller's memory again. Every read is bounded by the caller's cbBuffer.
#pragma once

#include <windows.h>

#include <ncrypt.h>

#include <string>
#include <vector>

// The buffer types this provider reads. The token's host software numbers the SP 800-56A inputs
// 13 and 14 (and the ignored party-V input 15), not as bcrypt.h's KDF_ALGORITHMID (8) and
// KDF_PARTYUINFO (9): callers of this provider pass 13 and 14, and 8 and 9 are ignored.
constexpr ULONG KSP_KDF_HASH_ALGORITHM = 0;
constexpr ULONG KSP_KDF_ALGORITHMID = 13;
constexpr ULONG KSP_KDF_PARTYUINFO = 14;
constexpr ULONG KSP_KDF_PARTYVINFO = 15;

struct KdfParameters {
    std::wstring hashName;  // the last hash name given; empty when none
    std::vector<unsigned char> algorithmId;
    std::vector<unsigned char> partyUInfo;
};

// Walks the buffers in order: a later hash name replaces an earlier one, algorithm-identifier and
// party-U bytes accumulate, buffers with a null value or size 0 and all other types are skipped.
// A null list, or one with no buffer, gives empty parameters. False when the list announces
// buffers but its buffer array is null.
bool readKdfParameters(const NCryptBufferDesc* list, KdfParameters* parameters);
