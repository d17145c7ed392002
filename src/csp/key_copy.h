// Filling key objects from the token's records.
#pragma once

#include <cstddef>

#include "csp/key_handle.h"
#include "token/device_library.h"

// Copies the identifier (keyIdLength 16), object identifier, label (at most 128 characters) and
// public key of a key pair into a key object. Usage, algorithm, size and flag are the caller's.
void copyKeyPairIntoHandle(const CalythKeyPair& keyPair, KEY_HANDLE* key);

// Copies at most `limit` characters of a text that is NUL-terminated within `capacity` bytes into
// `destination` (which has room for limit + 1) and terminates it.
void copyLabel(char* destination, size_t limit, const char* source, size_t capacity);
