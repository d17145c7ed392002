// The CryptoAPI provider entry points exported by CalythCSP.dll, with the platform's signatures.
#pragma once

#include <windows.h>
#include <wincrypt.h>

extern "C" {

// Contexts

// Hash objects

// Key objects

// Signatures

// Random numbers

// Key blobs

// Provider parameters

// Encryption

}  // extern "C"
