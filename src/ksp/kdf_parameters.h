// The parameter list of KSPDeriveKey (a BCryptBufferDesc), read into owned copies so that nothing
// later looks at the caller's memory again. Every read is bounded by the caller's cbBuffer; the
// bytes of each buffer are read by util/kdf_buffers.h.
#pragma once

#include <windows.h>

#include <ncrypt.h>

#include "util/kdf_buffers.h"

constexpr ULONG KSP_KDF_HASH_ALGORITHM = kKdfHashAlgorithm;
constexpr ULONG KSP_KDF_ALGORITHMID = kKdfAlgorithmId;
constexpr ULONG KSP_KDF_PARTYUINFO = kKdfPartyUInfo;
constexpr ULONG KSP_KDF_PARTYVINFO = kKdfPartyVInfo;

using KdfParameters = KdfValues;

// Walks the buffers in order: a later hash name replaces an earlier one, algorithm-identifier and
// party-U bytes accumulate, buffers with a null value or size 0 and all other types are skipped.
// A null list, or one with no buffer, gives empty parameters. False when the list announces
// buffers but its buffer array is null.
bool readKdfParameters(const NCryptBufferDesc* list, KdfParameters* parameters);
