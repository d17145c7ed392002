// A scriptable stand-in for the device library, linked into unit-test programs in place of
// CalythDSCLibrary.dll so that every path of the provider, failures included, can be reached.
//
// - State: tokens by serial (connected or not, init result, TokenInfo, PIN and attempts, key pairs,
//   AES keys, certificates), listed in the order they were added.
// - Every call is recorded with its arguments rendered as text (see Call).
// - failNext(function, result, times) makes the next calls of a function return that result
//   without doing anything else.
// - Hooks replace the default behaviour of a function for one test.
// - Every call served fails the running test when the provider's shared mutex is held by the
//   calling thread (see callsUnderProviderMutex).
// - Default behaviours are simple and deterministic (see fake_device.cpp): hashing is real SHA,
//   "encryption" is reversible byte arithmetic, signatures are a recognisable byte pattern.
// All functions are thread-safe (the provider's device monitor calls from its own thread).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "token/device_library.h"

namespace fake {

struct Call {
    std::string function;           // e.g. "calyth_signHash"
    std::string serial;             // the serial argument, "" where the function takes none
    std::vector<std::string> args;  // the other arguments, in order: decimal numbers, "true"/"false",
                                    // upper-case hex for byte buffers, "null" for null pointers
    unsigned long threadId = 0;     // the calling thread (the device monitor polls from its own)
};

struct Token {
    bool connected = true;
    int initResult = 0;  // answer of calyth_initDevice
    TokenInfo info{};    // label "FAKE-TOKEN", firmware "2.1.0", no SSO
    std::string pin = "1234";
    int attemptsLeft = 10;  // counted down by wrong PINs, reset by the right one
    int maxAttempts = 10;
    bool timeMismatch = false;  // calyth_validatePassword answers 48
    std::vector<CalythKeyPair> keyPairs;
    std::vector<CalythSymmetricKey> aesKeys;
    std::vector<CalythCertificate> certificates;
};

struct Hooks {
    std::function<int(const char* serial, const char* pin, int* attemptsLeft)> validatePassword;
    std::function<int(const char* serial, const unsigned char* keyId, const char* pin,
                      const unsigned char* digest, int digestLength, unsigned char* signature,
                      int* signatureLength, bool tokenFlag, bool usePss)>
        signHash;
    std::function<int(unsigned int code, const unsigned char* digest, int digestLength,
                      const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                      int signatureLength, bool usePss)>
        verifySignatureHash;
    std::function<int(EncryptionType type, PaddingMode padding, const unsigned char* data, int dataLength,
                      unsigned char* output, int* outputLength, const unsigned char* publicKey,
                      int publicKeyLength)>
        encrypt;
    std::function<int(const char* serial, const unsigned char* keyId, const char* pin,
                      const unsigned char* data, int dataLength, unsigned char** output, int* outputLength,
                      bool tokenFlag)>
        decrypt;
    std::function<int(const char* serial, const unsigned char* peer, int peerLength, unsigned char** secret,
                      int* secretLength)>
        ecdhDerive;
    std::function<int(const char* serial, const char* pin, CalythKeyPair* keyPair)> generateKeyPair;
    std::function<int(const char* serial, int length, unsigned char* output, bool useSoftware)> random;
    std::function<int(const char* serial, const char* pin, CalythCertificate* certificate)> importCertificate;
    std::function<int(const char* serial, EncryptionType type, const unsigned char* key, int keyLength,
                      const unsigned char* data, int dataLength, unsigned char** output, int* outputLength)>
        encryptAes;
    std::function<int(const char* serial, const unsigned char* keyReference, int keyReferenceLength,
                      const unsigned char* data, int dataLength, unsigned char** output, int* outputLength)>
        decryptAes;
    std::function<int(const char* serial, const unsigned char* data, int dataLength, unsigned char* output,
                      int* outputLength, const unsigned char* key, int keyLength)>
        decryptSymetric;
    // Called with the real digest already written (within the room) and *length set to its size;
    // may change both, e.g. to report a hostile length.
    std::function<int(unsigned char* digest, int* length)> finalHash;
    // Runs after every recorded call, on the calling thread, before the call does its work (e.g.
    // to unplug a token in the middle of an operation).
    std::function<void(const Call& call)> afterCall;
    // calyth_encrypt_aes and calyth_decryptSymetric: runs on the calling thread with the IV exactly
    // as the provider handed it over (pointer and length), before the call does its work.
    std::function<void(const unsigned char* iv, int ivLength)> symmetricIv;
};

// Resets everything: no tokens, no calls, no forced results, no hooks, no registered files or
// certificate details.
void reset();

// Every block the fake allocates and hands over through an `unsigned char**` output (calyth_decrypt,
// calyth_encrypt_aes, calyth_decrypt_aes, calyth_ecdhDerive) is announced here with the function's
// name, before the call returns; tests/fake_device/freed_buffers.h follows them to their free.
using HandedOutObserver = void (*)(const char* function, const void* block, size_t size);
void setHandedOutObserver(HandedOutObserver observer);

// Adds a connected token (label "FAKE-TOKEN", firmware "2.1.0") and returns it for changes.
// Tokens are listed by calyth_getConnectedDeviceList in the order they were added.
Token& addToken(const std::string& serial);
// The token with that serial (added if missing). Change it only while the provider is not calling.
Token& token(const std::string& serial);
void setConnected(const std::string& serial, bool connected);
// Single sign-on: label non-empty, userLoggedIn and ssoValid set (or cleared).
void setSingleSignOn(const std::string& serial, bool active);

// A key pair record: identifier from 32 hex characters, RSA modulus of `bits` bits (first byte
// 0xC1, so it is not DER) for codes 1-4, an EC point 04||X||Y for codes 5-7.
CalythKeyPair makeKeyPair(const std::string& keyIdHex, int32_t usage, int32_t keySizeCode,
                          const std::string& label = "");
CalythKeyPair& addKeyPair(const std::string& serial, const CalythKeyPair& keyPair);

// Certificates: calyth_getCertificateDetails answers the details registered for exactly these DER
// bytes and fails (result 1) for any other input.
void registerCertificate(const std::vector<unsigned char>& der, const CertificateDetails& details);
// What calyth_getFilesWithExtensionsAndConvertDER answers (whatever the folder).
void setFiles(const CalythFileList& files);

// The next `times` calls of `function` (e.g. "calyth_signHash") return `result` and do nothing else.
void failNext(const std::string& function, int result, int times = 1);

Hooks& hooks();

std::vector<Call> calls();
std::vector<Call> callsTo(const std::string& function);
// Only the calls made by the calling thread (leaves out the device monitor's polling).
std::vector<Call> callsFromThisThread();
size_t countCalls(const std::string& function);
// Names of all calls in order, e.g. {"calyth_init", "calyth_getConnectedDeviceList", ...}.
std::vector<std::string> callNames();
void clearCalls();

// Gives every record of the token a length field of `length` (key pairs: public key and object id;
// certificates: DER and object id; AES keys: reference and key) and fills every label to its last
// byte, so that no label carries a terminating zero.
void setHostileRecordLengths(const std::string& serial, int32_t length);

// The provider never holds its shared mutex (providerMutex()) across a device call. Every call the
// fake serves tries that mutex; when it stays taken (the calling thread holds it) the running test
// fails and the function's name is kept here.
std::vector<std::string> callsUnderProviderMutex();

// The byte pattern the default calyth_signHash writes: signature[i] = (i + 1) & 0xFF.
std::vector<unsigned char> defaultSignature(int length);
// The default calyth_encrypt writes data XOR 0xA5 (same length); calyth_decrypt undoes it.
constexpr unsigned char kRsaFakeMask = 0xA5;

std::string hex(const unsigned char* bytes, size_t length);
std::string hex(const std::vector<unsigned char>& bytes);
std::vector<unsigned char> unhex(const std::string& text);

}  // namespace fake
