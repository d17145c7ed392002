#include "status.h"

namespace softtoken {

const char* statusText(int status) {
    switch (status) {
        case kOk:
            return "success";
        case kFailed:
            return "failed";
        case kNoToken:
            return "no such token, or token unplugged";
        case kCorruptToken:
            return "token file is corrupt";
        case kBadArgument:
            return "bad argument";
        case kBufferTooSmall:
            return "buffer too small";
        case kKeyNotFound:
            return "key not found";
        case kPinIncorrect:
            return "PIN incorrect";
        case kPinLocked:
            return "PIN locked";
        case kPinRequired:
            return "PIN required";
        case kNotSupported:
            return "not supported";
        case kCryptoFailure:
            return "cryptographic operation failed";
        case kBadSignature:
            return "signature does not verify";
        case kDecryptFailed:
            return "decryption failed";
        case kStoreError:
            return "token store could not be written";
        case kNotFound:
            return "not found";
        case kTooLarge:
            return "object too large";
        case kAlreadyExists:
            return "token already exists";
        case 48:
            return "system time mismatch";
        case kSsoExpired:
            return "single sign-on expired";
        default:
            return "device status";
    }
}

}  // namespace softtoken
