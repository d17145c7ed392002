#include "agreement_support.h"

#include <bcrypt.h>

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace agreementtest {

Bytes bcryptDigest(const wchar_t* algorithm, const Bytes& data) {
    BCRYPT_ALG_HANDLE provider = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    DWORD size = 0;
    DWORD written = 0;
    Bytes digest;
    EXPECT_EQ(BCryptOpenAlgorithmProvider(&provider, algorithm, nullptr, 0), 0);
    if (provider == nullptr)
        return digest;
    BCryptGetProperty(provider, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&size), sizeof size, &written,
                      0);
    digest.resize(size);
    EXPECT_EQ(BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0), 0);
    EXPECT_EQ(BCryptHashData(hash, const_cast<PUCHAR>(data.data()), static_cast<ULONG>(data.size()), 0), 0);
    EXPECT_EQ(BCryptFinishHash(hash, digest.data(), size, 0), 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(provider, 0);
    return digest;
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes concat(const Bytes& a, const Bytes& b) {
    Bytes out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

ParameterList& ParameterList::add(ULONG type, const Bytes& value) {
    values_.push_back(value);
    owned_.push_back(true);
    buffers_.push_back({static_cast<ULONG>(value.size()), type, nullptr});
    return *this;
}

ParameterList& ParameterList::addText(ULONG type, const std::wstring& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.c_str());
    return add(type, Bytes(bytes, bytes + (text.size() + 1) * sizeof(wchar_t)));
}

ParameterList& ParameterList::addRaw(ULONG type, void* value, ULONG size) {
    values_.emplace_back();
    owned_.push_back(false);
    buffers_.push_back({size, type, value});
    return *this;
}

NCryptBufferDesc* ParameterList::desc() {
    // Owned values are pointed at here, once the vectors no longer move.
    for (size_t i = 0; i < buffers_.size(); ++i) {
        if (owned_[i])
            buffers_[i].pvBuffer = values_[i].empty() ? nullptr : values_[i].data();
    }
    desc_.ulVersion = NCRYPTBUFFER_VERSION;
    desc_.cBuffers = static_cast<ULONG>(buffers_.size());
    desc_.pBuffers = buffers_.data();
    return &desc_;
}

NCRYPT_SECRET_HANDLE makeSecret(const Bytes& secret, KspProvider* provider) {
    auto* made = new KspSecret{};
    std::memcpy(made->secret, secret.data(), std::min(secret.size(), sizeof made->secret));
    made->length = static_cast<uint32_t>(secret.size());
    made->provider = provider;
    return reinterpret_cast<NCRYPT_SECRET_HANDLE>(made);
}

}  // namespace agreementtest
