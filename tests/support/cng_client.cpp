#include "support/cng_client.h"

#include <cstring>
#include <gtest/gtest.h>

namespace cngtest {

namespace {

std::string hexHandle(ULONG_PTR handle) {
    char text[32];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(handle));
    return text;
}

}  // namespace

std::string providerDllBesideProgram() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string program(path);
    return program.substr(0, program.find_last_of('\\') + 1) + "CalythCSP.dll";
}

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

std::string narrow(const std::wstring& text) {
    std::string result;
    for (wchar_t c : text)
        result += static_cast<char>(c);
    return result;
}

CngClient::CngClient(const std::string& dllPath) {
    module_ = LoadLibraryA(dllPath.c_str());
    if (!module_) {
        ADD_FAILURE() << "LoadLibrary(" << dllPath << ") failed: " << GetLastError();
        return;
    }
    auto getInterface = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
        reinterpret_cast<void*>(GetProcAddress(module_, "GetKeyStorageInterface")));
    if (!getInterface) {
        ADD_FAILURE() << dllPath << " does not export GetKeyStorageInterface";
        return;
    }
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    SECURITY_STATUS status = getInterface(kProviderName, &table, 0);
    if (status != 0 || !table) {
        ADD_FAILURE() << "GetKeyStorageInterface answered " << hexHandle(static_cast<DWORD>(status));
        return;
    }
    table_ = table;
}

CngClient::~CngClient() {
    if (table_) {
        for (void* buffer : buffers_) {
            ADD_FAILURE() << "provider buffer " << buffer << " never freed";
            table_->FreeBuffer(buffer);
        }
        for (ULONG_PTR secret : secrets_.live) {
            ADD_FAILURE() << "secret handle " << hexHandle(secret) << " never freed";
            table_->FreeSecret(secretProvider_[secret], secret);
        }
        for (ULONG_PTR key : keys_.live) {
            ADD_FAILURE() << "key handle " << hexHandle(key) << " never freed";
            table_->FreeKey(keyProvider_[key], key);
        }
        for (ULONG_PTR provider : providers_.live) {
            ADD_FAILURE() << "provider handle " << hexHandle(provider) << " never freed";
            table_->FreeProvider(provider);
        }
    }
    if (module_)
        FreeLibrary(module_);
}

void CngClient::handedOut(Handles& handles, ULONG_PTR handle) {
    if (!handle)
        return;
    handles.freed.erase(handle);
    handles.live.insert(handle);
}

bool CngClient::usable(const Handles& handles, ULONG_PTR handle, const char* what, const char* call) {
    if (handles.freed.count(handle)) {
        ADD_FAILURE() << call << ": " << what << " handle " << hexHandle(handle)
                      << " used after it was freed";
        return false;
    }
    return true;
}

bool CngClient::release(Handles& handles, ULONG_PTR handle, const char* what, const char* call) {
    if (!handles.live.count(handle)) {
        ADD_FAILURE() << call << ": " << what << " handle " << hexHandle(handle)
                      << (handles.freed.count(handle) ? " freed twice" : " was never handed out");
        return false;
    }
    handles.live.erase(handle);
    handles.freed.insert(handle);
    return true;
}

void CngClient::bufferHandedOut(void* buffer) {
    if (buffer)
        buffers_.insert(buffer);
}

SECURITY_STATUS CngClient::openProvider(NCRYPT_PROV_HANDLE* provider, const wchar_t* name, DWORD flags) {
    SECURITY_STATUS status = table_->OpenProvider(provider, name, flags);
    if (status == 0 && provider)
        handedOut(providers_, *provider);
    return status;
}

SECURITY_STATUS CngClient::freeProvider(NCRYPT_PROV_HANDLE provider) {
    if (!release(providers_, provider, "provider", "FreeProvider"))
        return KSP_NTE_INVALID_HANDLE;
    return table_->FreeProvider(provider);
}

SECURITY_STATUS CngClient::isAlgSupported(NCRYPT_PROV_HANDLE provider, const wchar_t* algorithm,
                                          DWORD flags) {
    if (!usable(providers_, provider, "provider", "IsAlgSupported"))
        return KSP_NTE_INVALID_HANDLE;
    return table_->IsAlgSupported(provider, algorithm, flags);
}

SECURITY_STATUS CngClient::enumAlgorithms(NCRYPT_PROV_HANDLE provider, DWORD operations,
                                          std::vector<Algorithm>* algorithms, DWORD flags) {
    if (!usable(providers_, provider, "provider", "EnumAlgorithms"))
        return KSP_NTE_INVALID_HANDLE;
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    SECURITY_STATUS status = table_->EnumAlgorithms(provider, operations, &count, &list, flags);
    bufferHandedOut(list);
    if (algorithms) {
        algorithms->clear();
        for (DWORD i = 0; status == 0 && list && i < count; ++i) {
            const NCryptAlgorithmName& entry = list[i];
            algorithms->push_back(
                {entry.pszName ? entry.pszName : L"", entry.dwClass, entry.dwAlgOperations, entry.dwFlags});
        }
    }
    if (list)
        freeBuffer(list);
    return status;
}

SECURITY_STATUS CngClient::enumKeys(NCRYPT_PROV_HANDLE provider, const wchar_t* scope,
                                    NCryptKeyName** keyName, void** enumState, DWORD flags) {
    if (!usable(providers_, provider, "provider", "EnumKeys"))
        return KSP_NTE_INVALID_HANDLE;
    SECURITY_STATUS status = table_->EnumKeys(provider, scope, keyName, enumState, flags);
    if (keyName && status == 0)
        bufferHandedOut(*keyName);
    if (enumState)
        bufferHandedOut(*enumState);
    return status;
}

SECURITY_STATUS CngClient::listKeys(NCRYPT_PROV_HANDLE provider, std::vector<KeyName>* keys, DWORD flags) {
    if (keys)
        keys->clear();
    void* state = nullptr;
    SECURITY_STATUS status = 0;
    while (true) {
        NCryptKeyName* name = nullptr;
        status = enumKeys(provider, nullptr, &name, &state, flags);
        if (status != 0)
            break;
        if (name) {
            if (keys)
                keys->push_back({name->pszName ? name->pszName : L"", name->pszAlgid ? name->pszAlgid : L"",
                                 name->dwLegacyKeySpec, name->dwFlags});
            freeBuffer(name);
        }
    }
    if (state)
        freeBuffer(state);
    return status == KSP_NTE_NO_MORE_ITEMS ? 0 : status;
}

SECURITY_STATUS CngClient::freeBuffer(void* buffer) {
    if (buffer && !buffers_.erase(buffer)) {
        ADD_FAILURE() << "FreeBuffer(" << buffer << "): not a live provider buffer (freed twice?)";
        return KSP_NTE_INVALID_PARAMETER;
    }
    return table_->FreeBuffer(buffer);
}

SECURITY_STATUS CngClient::openKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key,
                                   const std::wstring& name, DWORD legacyKeySpec, DWORD flags) {
    if (!usable(providers_, provider, "provider", "OpenKey"))
        return KSP_NTE_INVALID_HANDLE;
    SECURITY_STATUS status = table_->OpenKey(provider, key, name.c_str(), legacyKeySpec, flags);
    if (status == 0 && key) {
        handedOut(keys_, *key);
        keyProvider_[*key] = provider;
    }
    return status;
}

SECURITY_STATUS CngClient::createPersistedKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key,
                                              const wchar_t* algorithm, const wchar_t* name,
                                              DWORD legacyKeySpec, DWORD flags) {
    if (!usable(providers_, provider, "provider", "CreatePersistedKey"))
        return KSP_NTE_INVALID_HANDLE;
    SECURITY_STATUS status = table_->CreatePersistedKey(provider, key, algorithm, name, legacyKeySpec, flags);
    if (status == 0 && key) {
        handedOut(keys_, *key);
        keyProvider_[*key] = provider;
    }
    return status;
}

SECURITY_STATUS CngClient::finalizeKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags) {
    if (!usable(providers_, provider, "provider", "FinalizeKey") || !usable(keys_, key, "key", "FinalizeKey"))
        return KSP_NTE_INVALID_HANDLE;
    return table_->FinalizeKey(provider, key, flags);
}

SECURITY_STATUS CngClient::deleteKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags) {
    if (!usable(providers_, provider, "provider", "DeleteKey") || !usable(keys_, key, "key", "DeleteKey"))
        return KSP_NTE_INVALID_HANDLE;
    return table_->DeleteKey(provider, key, flags);
}

SECURITY_STATUS CngClient::freeKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) {
    if (!release(keys_, key, "key", "FreeKey"))
        return KSP_NTE_INVALID_HANDLE;
    keyProvider_.erase(key);
    return table_->FreeKey(provider, key);
}

SECURITY_STATUS CngClient::getProviderProperty(NCRYPT_PROV_HANDLE provider, const wchar_t* property,
                                               Bytes* value, DWORD flags) {
    if (!usable(providers_, provider, "provider", "GetProviderProperty"))
        return KSP_NTE_INVALID_HANDLE;
    DWORD size = 0;
    SECURITY_STATUS status = table_->GetProviderProperty(provider, property, nullptr, 0, &size, flags);
    if (status != 0)
        return status;
    value->assign(size, 0);
    status = table_->GetProviderProperty(provider, property, value->data(), size, &size, flags);
    if (status == 0)
        value->resize(size);
    return status;
}

SECURITY_STATUS CngClient::setProviderProperty(NCRYPT_PROV_HANDLE provider, const wchar_t* property,
                                               const Bytes& value, DWORD flags) {
    if (!usable(providers_, provider, "provider", "SetProviderProperty"))
        return KSP_NTE_INVALID_HANDLE;
    Bytes copy(value);
    return table_->SetProviderProperty(provider, property, copy.empty() ? nullptr : copy.data(),
                                       static_cast<DWORD>(copy.size()), flags);
}

SECURITY_STATUS CngClient::getKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                          const wchar_t* property, Bytes* value, DWORD flags) {
    if (!usable(providers_, provider, "provider", "GetKeyProperty") ||
        !usable(keys_, key, "key", "GetKeyProperty"))
        return KSP_NTE_INVALID_HANDLE;
    DWORD size = 0;
    SECURITY_STATUS status = table_->GetKeyProperty(provider, key, property, nullptr, 0, &size, flags);
    if (status != 0)
        return status;
    value->assign(size, 0);
    status = table_->GetKeyProperty(provider, key, property, value->data(), size, &size, flags);
    if (status == 0)
        value->resize(size);
    return status;
}

SECURITY_STATUS CngClient::setKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                          const wchar_t* property, const Bytes& value, DWORD flags) {
    if (!usable(providers_, provider, "provider", "SetKeyProperty") ||
        !usable(keys_, key, "key", "SetKeyProperty"))
        return KSP_NTE_INVALID_HANDLE;
    Bytes copy(value);
    return table_->SetKeyProperty(provider, key, property, copy.empty() ? nullptr : copy.data(),
                                  static_cast<DWORD>(copy.size()), flags);
}

SECURITY_STATUS CngClient::setKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                          const wchar_t* property, DWORD value, DWORD flags) {
    Bytes bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return setKeyProperty(provider, key, property, bytes, flags);
}

SECURITY_STATUS CngClient::getKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                          const wchar_t* property, DWORD* value, DWORD flags) {
    Bytes bytes;
    SECURITY_STATUS status = getKeyProperty(provider, key, property, &bytes, flags);
    if (status == 0 && bytes.size() != sizeof(DWORD)) {
        ADD_FAILURE() << "key property " << narrow(property) << " has " << bytes.size() << " bytes, not 4";
        return KSP_NTE_BAD_DATA;
    }
    if (status == 0)
        memcpy(value, bytes.data(), sizeof(DWORD));
    return status;
}

SECURITY_STATUS CngClient::getKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                          const wchar_t* property, std::wstring* value, DWORD flags) {
    Bytes bytes;
    SECURITY_STATUS status = getKeyProperty(provider, key, property, &bytes, flags);
    if (status == 0) {
        value->assign(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
        while (!value->empty() && value->back() == L'\0')
            value->pop_back();
    }
    return status;
}

SECURITY_STATUS CngClient::setPin(NCRYPT_PROV_HANDLE provider, const std::string& pin) {
    Bytes text(pin.begin(), pin.end());
    text.push_back(0);
    return setProviderProperty(provider, L"SmartCardPin", text);
}

SECURITY_STATUS CngClient::signHash(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, void* paddingInfo,
                                    const Bytes& hash, Bytes* signature, DWORD flags) {
    if (!usable(providers_, provider, "provider", "SignHash") || !usable(keys_, key, "key", "SignHash"))
        return KSP_NTE_INVALID_HANDLE;
    Bytes input(hash);
    DWORD size = 0;
    SECURITY_STATUS status = table_->SignHash(provider, key, paddingInfo, input.data(),
                                              static_cast<DWORD>(input.size()), nullptr, 0, &size, flags);
    if (status != 0)
        return status;
    signature->assign(size, 0);
    status = table_->SignHash(provider, key, paddingInfo, input.data(), static_cast<DWORD>(input.size()),
                              signature->data(), size, &size, flags);
    if (status == 0)
        signature->resize(size);
    return status;
}

SECURITY_STATUS CngClient::verifySignature(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                           void* paddingInfo, const Bytes& hash, const Bytes& signature,
                                           DWORD flags) {
    if (!usable(providers_, provider, "provider", "VerifySignature") ||
        !usable(keys_, key, "key", "VerifySignature"))
        return KSP_NTE_INVALID_HANDLE;
    Bytes input(hash);
    Bytes copy(signature);
    return table_->VerifySignature(provider, key, paddingInfo, input.data(), static_cast<DWORD>(input.size()),
                                   copy.data(), static_cast<DWORD>(copy.size()), flags);
}

SECURITY_STATUS CngClient::encrypt(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const Bytes& input,
                                   void* paddingInfo, Bytes* output, DWORD flags) {
    if (!usable(providers_, provider, "provider", "Encrypt") || !usable(keys_, key, "key", "Encrypt"))
        return KSP_NTE_INVALID_HANDLE;
    Bytes copy(input);
    DWORD size = 0;
    SECURITY_STATUS status = table_->Encrypt(provider, key, copy.data(), static_cast<DWORD>(copy.size()),
                                             paddingInfo, nullptr, 0, &size, flags);
    if (status != 0)
        return status;
    output->assign(size, 0);
    status = table_->Encrypt(provider, key, copy.data(), static_cast<DWORD>(copy.size()), paddingInfo,
                             output->data(), size, &size, flags);
    if (status == 0)
        output->resize(size);
    return status;
}

SECURITY_STATUS CngClient::decrypt(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const Bytes& input,
                                   void* paddingInfo, Bytes* output, DWORD flags) {
    if (!usable(providers_, provider, "provider", "Decrypt") || !usable(keys_, key, "key", "Decrypt"))
        return KSP_NTE_INVALID_HANDLE;
    Bytes copy(input);
    DWORD size = 0;
    SECURITY_STATUS status = table_->Decrypt(provider, key, copy.data(), static_cast<DWORD>(copy.size()),
                                             paddingInfo, nullptr, 0, &size, flags);
    if (status != 0)
        return status;
    output->assign(size, 0);
    status = table_->Decrypt(provider, key, copy.data(), static_cast<DWORD>(copy.size()), paddingInfo,
                             output->data(), size, &size, flags);
    if (status == 0)
        output->resize(size);
    return status;
}

SECURITY_STATUS CngClient::exportKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                                     NCRYPT_KEY_HANDLE exportKey, const wchar_t* blobType,
                                     NCryptBufferDesc* parameters, Bytes* blob, DWORD flags) {
    if (!usable(providers_, provider, "provider", "ExportKey") || !usable(keys_, key, "key", "ExportKey") ||
        (exportKey && !usable(keys_, exportKey, "export key", "ExportKey")))
        return KSP_NTE_INVALID_HANDLE;
    DWORD size = 0;
    SECURITY_STATUS status =
        table_->ExportKey(provider, key, exportKey, blobType, parameters, nullptr, 0, &size, flags);
    if (status != 0)
        return status;
    blob->assign(size, 0);
    status =
        table_->ExportKey(provider, key, exportKey, blobType, parameters, blob->data(), size, &size, flags);
    if (status == 0)
        blob->resize(size);
    return status;
}

SECURITY_STATUS CngClient::importKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE importKey,
                                     const wchar_t* blobType, NCryptBufferDesc* parameters,
                                     NCRYPT_KEY_HANDLE* key, const Bytes& blob, DWORD flags) {
    if (!usable(providers_, provider, "provider", "ImportKey") ||
        (importKey && !usable(keys_, importKey, "import key", "ImportKey")))
        return KSP_NTE_INVALID_HANDLE;
    Bytes copy(blob);
    SECURITY_STATUS status = table_->ImportKey(provider, importKey, blobType, parameters, key, copy.data(),
                                               static_cast<DWORD>(copy.size()), flags);
    if (status == 0 && key) {
        handedOut(keys_, *key);
        keyProvider_[*key] = provider;
    }
    return status;
}

SECURITY_STATUS CngClient::secretAgreement(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE privateKey,
                                           NCRYPT_KEY_HANDLE publicKey, NCRYPT_SECRET_HANDLE* secret,
                                           DWORD flags) {
    if (!usable(providers_, provider, "provider", "SecretAgreement") ||
        !usable(keys_, privateKey, "private key", "SecretAgreement") ||
        !usable(keys_, publicKey, "public key", "SecretAgreement"))
        return KSP_NTE_INVALID_HANDLE;
    SECURITY_STATUS status = table_->SecretAgreement(provider, privateKey, publicKey, secret, flags);
    if (status == 0 && secret) {
        handedOut(secrets_, *secret);
        secretProvider_[*secret] = provider;
    }
    return status;
}

SECURITY_STATUS CngClient::deriveKey(NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret,
                                     const wchar_t* kdf, NCryptBufferDesc* parameters, Bytes* derived,
                                     DWORD flags) {
    if (!usable(providers_, provider, "provider", "DeriveKey") ||
        !usable(secrets_, secret, "secret", "DeriveKey"))
        return KSP_NTE_INVALID_HANDLE;
    DWORD size = 0;
    SECURITY_STATUS status = table_->DeriveKey(provider, secret, kdf, parameters, nullptr, 0, &size, flags);
    if (status != 0)
        return status;
    derived->assign(size, 0);
    status = table_->DeriveKey(provider, secret, kdf, parameters, derived->data(), size, &size, flags);
    if (status == 0)
        derived->resize(size);
    return status;
}

SECURITY_STATUS CngClient::freeSecret(NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret) {
    if (!release(secrets_, secret, "secret", "FreeSecret"))
        return KSP_NTE_INVALID_HANDLE;
    secretProvider_.erase(secret);
    return table_->FreeSecret(provider, secret);
}

}  // namespace cngtest
