// Helpers of the agreement tests: an independent digest, parameter lists, secrets built directly
// and memory that ends at an inaccessible page.
#pragma once

#include <windows.h>

#include <ncrypt.h>

#include <string>
#include <vector>

#include "ksp/ksp_objects.h"

namespace agreementtest {

using Bytes = std::vector<unsigned char>;

// Digest through the system's BCrypt (L"SHA1", L"SHA256", L"SHA384", L"SHA512").
Bytes bcryptDigest(const wchar_t* algorithm, const Bytes& data);
Bytes bytesOf(const std::string& text);
Bytes concat(const Bytes& a, const Bytes& b);

// A parameter list that owns its buffers' values.
class ParameterList {
public:
    ParameterList& add(ULONG type, const Bytes& value);
    ParameterList& addText(ULONG type, const std::wstring& text);  // with its NUL
    ParameterList& addRaw(ULONG type, void* value, ULONG size);    // value not copied
    NCryptBufferDesc* desc();

private:
    std::vector<Bytes> values_;
    std::vector<bool> owned_;
    std::vector<NCryptBuffer> buffers_;
    NCryptBufferDesc desc_{};
};

// A secret record as KSPSecretAgreement leaves it; released with KSPFreeSecret by the caller.
NCRYPT_SECRET_HANDLE makeSecret(const Bytes& secret, KspProvider* provider);

}  // namespace agreementtest
