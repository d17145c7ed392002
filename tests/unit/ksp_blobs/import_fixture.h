// The import tests' fixture: a provider on the fake token "SN1" and KSPImportKey driven from a heap
// copy of exactly the blob's bytes, so that a read past cbData is caught by the allocator's checks
// rather than landing in a neighbouring field.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include "../ksp/ksp_fixture.h"
#include "blob_builders.h"

namespace blobtest {

// What *phKey holds before the call; a failed import must leave it so.
const NCRYPT_KEY_HANDLE kUntouched = static_cast<NCRYPT_KEY_HANDLE>(0x5A5A);

class KspImportTest : public ksptest::KspTest {
protected:
    void SetUp() override {
        KspTest::SetUp();
        makeProvider();
        fake::clearCalls();
    }

    SECURITY_STATUS import(const wchar_t* type, const Bytes& blob, NCRYPT_KEY_HANDLE* key,
                           NCRYPT_KEY_HANDLE importKey = 0) {
        Bytes copy = blob;
        *key = kUntouched;
        SECURITY_STATUS status = KSPImportKey(provider_, importKey, type, nullptr, key, copy.data(),
                                              static_cast<DWORD>(copy.size()), 0);
        EXPECT_EQ(copy, blob) << "the caller's blob was changed";
        if (status == 0)
            keep(*key);
        else
            EXPECT_EQ(*key, kUntouched) << "a key was handed out on failure";
        return status;
    }
};

}  // namespace blobtest
