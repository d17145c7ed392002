#include "cng_signer.h"

#include <bcrypt.h>

#include "ksp/ksp_interface.h"

namespace calythsign {
namespace {

bool fail(SignError* failure, const std::string& step, DWORD error) {
    failure->step = step;
    failure->error = error;
    return false;
}

const wchar_t* bcryptHashName(const std::string& name) {
    if (name == "sha1")
        return BCRYPT_SHA1_ALGORITHM;
    if (name == "sha256")
        return BCRYPT_SHA256_ALGORITHM;
    if (name == "sha384")
        return BCRYPT_SHA384_ALGORITHM;
    if (name == "sha512")
        return BCRYPT_SHA512_ALGORITHM;
    return nullptr;
}

// The digest of `document` as Windows' own BCrypt computes it.
bool digestOf(const wchar_t* algorithm, const Bytes& document, Bytes* digest, SignError* failure) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    NTSTATUS status = BCryptOpenAlgorithmProvider(&provider, algorithm, nullptr, 0);
    if (status != 0)
        return fail(failure, "BCryptOpenAlgorithmProvider", static_cast<DWORD>(status));
    DWORD length = 0, written = 0;
    BCRYPT_HASH_HANDLE hash = nullptr;
    status = BCryptGetProperty(provider, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof length,
                               &written, 0);
    if (status == 0)
        status = BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0);
    if (status == 0)
        status =
            BCryptHashData(hash, const_cast<PUCHAR>(document.data()), static_cast<ULONG>(document.size()), 0);
    if (status == 0) {
        digest->assign(length, 0);
        status = BCryptFinishHash(hash, digest->data(), length, 0);
    }
    if (hash)
        BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(provider, 0);
    return status == 0 || fail(failure, "BCrypt hash", static_cast<DWORD>(status));
}

// The provider and key handles of one signature, freed through the table as the router frees them.
struct Session {
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    ~Session() {
        if (key)
            table->FreeKey(provider, key);
        if (provider)
            table->FreeProvider(provider);
    }
};

bool sign(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table, const CngSignRequest& request, Bytes& digest,
          const wchar_t* hashName, Bytes* signature, SignError* failure) {
    Session session;
    session.table = table;
    SECURITY_STATUS status = table->OpenProvider(&session.provider, L"Calyth Cryptographic Provider CSP", 0);
    if (status != 0)
        return fail(failure, "OpenProvider", static_cast<DWORD>(status));
    if (!request.pin.empty()) {
        // The provider reads the PIN as narrow, zero-terminated text.
        std::string pin = request.pin;
        status = table->SetProviderProperty(session.provider, NCRYPT_PIN_PROPERTY,
                                            reinterpret_cast<PBYTE>(&pin[0]),
                                            static_cast<DWORD>(pin.size() + 1), 0);
        if (status != 0)
            return fail(failure, "SetProviderProperty(SmartCardPin)", static_cast<DWORD>(status));
    }
    std::wstring keyName(request.keyId.begin(), request.keyId.end());
    status = table->OpenKey(session.provider, &session.key, keyName.c_str(), 0, 0);
    if (status != 0)
        return fail(failure, "OpenKey", static_cast<DWORD>(status));
    BCRYPT_PKCS1_PADDING_INFO padding = {hashName};
    DWORD length = 0;
    status = table->SignHash(session.provider, session.key, &padding, digest.data(),
                             static_cast<DWORD>(digest.size()), nullptr, 0, &length, BCRYPT_PAD_PKCS1);
    if (status != 0)
        return fail(failure, "SignHash (size)", static_cast<DWORD>(status));
    signature->assign(length, 0);
    status = table->SignHash(session.provider, session.key, &padding, digest.data(),
                             static_cast<DWORD>(digest.size()), signature->data(), length, &length,
                             BCRYPT_PAD_PKCS1);
    if (status != 0)
        return fail(failure, "SignHash", static_cast<DWORD>(status));
    signature->resize(length);
    return true;
}

}  // namespace

std::string providerDllBesideProgram() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string program(path);
    return program.substr(0, program.find_last_of('\\') + 1) + "CalythCSP.dll";
}

bool signHashCng(const CngSignRequest& request, const Bytes& document, Bytes* signature, SignError* failure) {
    const wchar_t* hashName = bcryptHashName(request.hash);
    if (!hashName)
        return fail(failure, "hash " + request.hash, static_cast<DWORD>(KSP_NTE_NOT_SUPPORTED));
    Bytes digest;
    if (!digestOf(hashName, document, &digest, failure))
        return false;
    HMODULE module = LoadLibraryA(request.dll.c_str());
    if (!module)
        return fail(failure, "LoadLibrary(" + request.dll + ")", GetLastError());
    auto getInterface = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
        reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    bool ok;
    if (!getInterface) {
        ok = fail(failure, "GetProcAddress(GetKeyStorageInterface)", GetLastError());
    } else {
        SECURITY_STATUS status = getInterface(L"Calyth Cryptographic Provider CSP", &table, 0);
        ok = status == 0 && table ? sign(table, request, digest, hashName, signature, failure)
                                  : fail(failure, "GetKeyStorageInterface", static_cast<DWORD>(status));
    }
    FreeLibrary(module);
    return ok;
}

}  // namespace calythsign
