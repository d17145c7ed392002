// AES with libgcrypt: CBC and ECB with PKCS #7 padding, and the RFC 3394 key wrap.
#pragma once

#include "util/encoding.h"

namespace softtoken {

// The AES size follows the key length (16, 24, 32). CBC needs a 16-byte IV.
int aesEncrypt(bool cbc, const unsigned char* key, int keyLength, const unsigned char* iv, int ivLength,
               const unsigned char* data, int dataLength, Bytes& out);
int aesDecrypt(bool cbc, const unsigned char* key, int keyLength, const unsigned char* iv, int ivLength,
               const unsigned char* data, int dataLength, Bytes& out);
// iv: the 8-byte initial value, or none for the standard A6A6A6A6A6A6A6A6.
int aesUnwrap(const Bytes& key, const unsigned char* iv, int ivLength, const unsigned char* data,
              int dataLength, Bytes& out);
int aesWrap(const Bytes& key, const unsigned char* data, int dataLength, Bytes& out);

}  // namespace softtoken
