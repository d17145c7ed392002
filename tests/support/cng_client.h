// A CNG client of CalythCSP.dll that plays the NCrypt router's part: Wine's ncrypt does not load
// third-party key storage providers, so the tests load the DLL themselves, take its function table
// from GetKeyStorageInterface and call the slots as the router would.
//
// The client also holds the provider to the router's ownership rules: every buffer the provider
// hands out is freed once through FreeBuffer, every provider, key and secret handle is freed once
// and not used after that. A breach is a test failure (ADD_FAILURE); whatever is still open when
// the client is destroyed is reported as a leak and freed.
#pragma once

#include <windows.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "ksp/ksp_interface.h"

namespace cngtest {

constexpr const wchar_t* kProviderName = L"Calyth Cryptographic Provider CSP";

using Bytes = std::vector<unsigned char>;

// One entry of EnumAlgorithms.
struct Algorithm {
    std::wstring name;
    DWORD algorithmClass = 0;
    DWORD operations = 0;
    DWORD flags = 0;
};

// One entry of EnumKeys.
struct KeyName {
    std::wstring name;
    std::wstring algorithm;
    DWORD legacyKeySpec = 0;
    DWORD flags = 0;
};

// The full Windows path of the CalythCSP.dll beside this program.
std::string providerDllBesideProgram();

class CngClient {
public:
    // Loads the DLL and takes its function table; loaded() tells whether both worked.
    explicit CngClient(const std::string& dllPath = providerDllBesideProgram());
    ~CngClient();
    CngClient(const CngClient&) = delete;
    CngClient& operator=(const CngClient&) = delete;

    bool loaded() const { return table_ != nullptr; }
    HMODULE module() const { return module_; }
    // The raw table, for calls the ownership checks must not see (deliberately bad handles).
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table() const { return table_; }

    SECURITY_STATUS openProvider(NCRYPT_PROV_HANDLE* provider, const wchar_t* name = kProviderName,
                                 DWORD flags = 0);
    SECURITY_STATUS freeProvider(NCRYPT_PROV_HANDLE provider);

    SECURITY_STATUS isAlgSupported(NCRYPT_PROV_HANDLE provider, const wchar_t* algorithm, DWORD flags = 0);
    SECURITY_STATUS enumAlgorithms(NCRYPT_PROV_HANDLE provider, DWORD operations,
                                   std::vector<Algorithm>* algorithms, DWORD flags = 0);
    // One EnumKeys step as the router makes it: *keyName is a provider buffer (free it with
    // freeBuffer), *enumState the provider's state (freeBuffer once the enumeration ends).
    SECURITY_STATUS enumKeys(NCRYPT_PROV_HANDLE provider, const wchar_t* scope, NCryptKeyName** keyName,
                             void** enumState, DWORD flags = 0);
    // The whole enumeration: every name until NTE_NO_MORE_ITEMS, all buffers freed. Answers 0 when
    // the enumeration ended with NTE_NO_MORE_ITEMS, else the failing status.
    SECURITY_STATUS listKeys(NCRYPT_PROV_HANDLE provider, std::vector<KeyName>* keys, DWORD flags = 0);
    SECURITY_STATUS freeBuffer(void* buffer);

    SECURITY_STATUS openKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, const std::wstring& name,
                            DWORD legacyKeySpec = 0, DWORD flags = 0);
    SECURITY_STATUS createPersistedKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key,
                                       const wchar_t* algorithm, const wchar_t* name = nullptr,
                                       DWORD legacyKeySpec = 0, DWORD flags = 0);
    SECURITY_STATUS finalizeKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags = 0);
    // Deletes the key on the token; the handle stays open until freeKey (as the provider keeps it).
    SECURITY_STATUS deleteKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags = 0);
    SECURITY_STATUS freeKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key);

    // Properties: the Get wrappers query the size first, then read the value into *value.
    SECURITY_STATUS getProviderProperty(NCRYPT_PROV_HANDLE provider, const wchar_t* property, Bytes* value,
                                        DWORD flags = 0);
    SECURITY_STATUS setProviderProperty(NCRYPT_PROV_HANDLE provider, const wchar_t* property,
                                        const Bytes& value, DWORD flags = 0);
    SECURITY_STATUS getKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                   const wchar_t* property, Bytes* value, DWORD flags = 0);
    SECURITY_STATUS setKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                   const wchar_t* property, const Bytes& value, DWORD flags = 0);
    // A 32-bit property ("Length", "Key Usage", ...).
    SECURITY_STATUS setKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                   const wchar_t* property, DWORD value, DWORD flags = 0);
    SECURITY_STATUS getKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                   const wchar_t* property, DWORD* value, DWORD flags = 0);
    // A wide-text property without its terminating NUL.
    SECURITY_STATUS getKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                   const wchar_t* property, std::wstring* value, DWORD flags = 0);
    // "SmartCardPin" on the provider: the PIN as narrow NUL-terminated text.
    SECURITY_STATUS setPin(NCRYPT_PROV_HANDLE provider, const std::string& pin);

    // Sign, encrypt, decrypt and export query the size first, then fill *output.
    SECURITY_STATUS signHash(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, void* paddingInfo,
                             const Bytes& hash, Bytes* signature, DWORD flags);
    SECURITY_STATUS verifySignature(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, void* paddingInfo,
                                    const Bytes& hash, const Bytes& signature, DWORD flags);
    SECURITY_STATUS encrypt(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const Bytes& input,
                            void* paddingInfo, Bytes* output, DWORD flags);
    SECURITY_STATUS decrypt(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const Bytes& input,
                            void* paddingInfo, Bytes* output, DWORD flags);
    SECURITY_STATUS exportKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey,
                              const wchar_t* blobType, NCryptBufferDesc* parameters, Bytes* blob,
                              DWORD flags = 0);
    SECURITY_STATUS importKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE importKey,
                              const wchar_t* blobType, NCryptBufferDesc* parameters, NCRYPT_KEY_HANDLE* key,
                              const Bytes& blob, DWORD flags = 0);

    SECURITY_STATUS secretAgreement(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE privateKey,
                                    NCRYPT_KEY_HANDLE publicKey, NCRYPT_SECRET_HANDLE* secret,
                                    DWORD flags = 0);
    SECURITY_STATUS deriveKey(NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret, const wchar_t* kdf,
                              NCryptBufferDesc* parameters, Bytes* derived, DWORD flags = 0);
    SECURITY_STATUS freeSecret(NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret);

private:
    // Live and freed handles of one kind. A freed value that comes back from the provider as a new
    // object is live again.
    struct Handles {
        std::set<ULONG_PTR> live;
        std::set<ULONG_PTR> freed;
    };
    void handedOut(Handles& handles, ULONG_PTR handle);
    // False (and a test failure naming `what` and `call`) for a handle already freed.
    bool usable(const Handles& handles, ULONG_PTR handle, const char* what, const char* call);
    bool release(Handles& handles, ULONG_PTR handle, const char* what, const char* call);
    void bufferHandedOut(void* buffer);

    HMODULE module_ = nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table_ = nullptr;
    Handles providers_;
    Handles keys_;
    Handles secrets_;
    std::set<void*> buffers_;
    std::map<ULONG_PTR, ULONG_PTR> keyProvider_;  // key -> provider it was opened on
    std::map<ULONG_PTR, ULONG_PTR> secretProvider_;
};

// Wide <-> narrow for the ASCII names the provider uses.
std::wstring wide(const std::string& text);
std::string narrow(const std::wstring& text);

}  // namespace cngtest
