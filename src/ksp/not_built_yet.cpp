// The slots whose operations this provider does not offer yet: key export and key import.
// Each logs its name and answers NTE_NOT_SUPPORTED.
#include "ksp/ksp_common.h"

namespace {

SECURITY_STATUS notSupported(const char* operation) {
    logDebug(operation);
    return kspFail(KSP_NTE_NOT_SUPPORTED, std::string(operation) + ": not supported");
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, NCryptBufferDesc*,
                                    NCRYPT_KEY_HANDLE*, PBYTE, DWORD, DWORD) {
    return notSupported("KSPImportKey");
}

SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR,
                                    NCryptBufferDesc*, PBYTE, DWORD, DWORD*, DWORD) {
    return notSupported("KSPExportKey");
}

}  // extern "C"
