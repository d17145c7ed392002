// Status codes of the soft token. 0 is success; 48 and 49 are kept free for the codes the provider
// tells apart (system time mismatch, single sign-on expired), which only fault injection or the
// single-sign-on state produce.
#pragma once

namespace softtoken {

enum Status : int {
    kOk = 0,
    kFailed = 1,          // anything not covered below
    kNoToken = 2,         // no token with that serial, or the token is unplugged
    kCorruptToken = 3,    // the token file cannot be read back
    kBadArgument = 4,     // null pointer, bad length, unknown code
    kBufferTooSmall = 5,  // the caller's room is smaller than the result
    kKeyNotFound = 6,     // no key with that identifier or reference
    kPinIncorrect = 7,    // wrong PIN, attempts left
    kPinLocked = 8,       // no attempts left
    kPinRequired = 9,     // empty PIN and no single-sign-on session
    kNotSupported = 10,   // algorithm, padding or key type not offered
    kCryptoFailure = 11,  // the cryptographic library refused the operation
    kBadSignature = 12,   // verification failed
    kDecryptFailed = 13,  // padding or integrity check failed
    kStoreError = 14,     // the token file could not be written
    kNotFound = 15,       // no such object (certificate, file)
    kTooLarge = 16,       // the object does not fit its record
    kAlreadyExists = 17,  // a token with that serial exists
    kSsoExpired = 49,     // private-key work with an empty PIN after the session expired
};

const char* statusText(int status);

}  // namespace softtoken
