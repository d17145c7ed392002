#include "checks.h"
#include "files.h"
#include "ksp/ksp_interface.h"

namespace doctor {
namespace {

constexpr size_t kTableFunctions =
    (sizeof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE) - offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, OpenProvider)) /
    sizeof(void*);
static_assert(kTableFunctions == 26, "the key storage table has 26 functions");

// The names of the table's slots, in order, for naming an empty one.
const char* const kSlotNames[kTableFunctions] = {"OpenProvider",
                                                 "OpenKey",
                                                 "CreatePersistedKey",
                                                 "GetProviderProperty",
                                                 "GetKeyProperty",
                                                 "SetProviderProperty",
                                                 "SetKeyProperty",
                                                 "FinalizeKey",
                                                 "DeleteKey",
                                                 "FreeProvider",
                                                 "FreeKey",
                                                 "FreeBuffer",
                                                 "Encrypt",
                                                 "Decrypt",
                                                 "IsAlgSupported",
                                                 "EnumAlgorithms",
                                                 "EnumKeys",
                                                 "ImportKey",
                                                 "ExportKey",
                                                 "SignHash",
                                                 "VerifySignature",
                                                 "PromptUser",
                                                 "NotifyChangeKey",
                                                 "SecretAgreement",
                                                 "DeriveKey",
                                                 "FreeSecret"};

Check inspectTable(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table) {
    const char* name = "Key storage provider";
    if (table->Version.MajorVersion != 1 || table->Version.MinorVersion != 0)
        return makeCheck(name, Verdict::Fail,
                         "the table has version " + std::to_string(table->Version.MajorVersion) + "." +
                             std::to_string(table->Version.MinorVersion) + ", not 1.0",
                         "reinstall the provider: this CalythCSP.dll does not match CNG");
    void* const* slots = reinterpret_cast<void* const*>(&table->OpenProvider);
    std::string empty;
    for (size_t i = 0; i < kTableFunctions; ++i) {
        if (!slots[i])
            empty += (empty.empty() ? "" : ", ") + std::string(kSlotNames[i]);
    }
    if (!empty.empty())
        return makeCheck(name, Verdict::Fail, "the function table lacks " + empty, "reinstall the provider");
    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = table->OpenProvider(&provider, L"Calyth Cryptographic Provider CSP", 0);
    if (status != 0)
        return makeCheck(name, Verdict::Fail,
                         "OpenProvider answers " + describeError(static_cast<DWORD>(status)),
                         "look at the provider's log file of calyth-doctor (see the log check)");
    table->FreeProvider(provider);
    return makeCheck(name, Verdict::Ok,
                     "GetKeyStorageInterface answers a complete table (version 1.0, all 26 functions); the "
                     "provider opens");
}

}  // namespace

void checkKeyStorageProvider(Report* report, const std::string& providerDll) {
    const char* name = "Key storage provider";
    // CNG loads the image name "CalythCSP.dll" with the loader's search order.
    std::string dll = providerDll.empty() ? "CalythCSP.dll" : providerDll;
    HMODULE module = LoadLibraryA(dll.c_str());
    if (!module) {
        report->push_back(makeCheck(name, Verdict::Fail,
                                    "CalythCSP.dll does not load: " + describeError(GetLastError()),
                                    "see the registration and device library checks"));
        return;
    }
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module, path, MAX_PATH);
    auto getInterface = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
        reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
    Check check;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    if (!getInterface) {
        check = makeCheck(name, Verdict::Fail, std::string(path) + " does not export GetKeyStorageInterface",
                          "reinstall the provider");
    } else {
        SECURITY_STATUS status = getInterface(L"Calyth Cryptographic Provider CSP", &table, 0);
        check = status != 0 || !table
                    ? makeCheck(name, Verdict::Fail,
                                "GetKeyStorageInterface answers " + describeError(static_cast<DWORD>(status)),
                                "reinstall the provider")
                    : inspectTable(table);
    }
    check.facts.push_back("file: " + std::string(path));
    report->push_back(check);
    FreeLibrary(module);
}

}  // namespace doctor
