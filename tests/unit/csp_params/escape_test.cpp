// CPGetProvParam and CPSetProvParam answer an exception escaping from below with their own line:
// "<entry point>: unexpected failure" and NTE_FAIL, running out of memory included.
#include <new>
#include <stdexcept>

#include "param_test_context.h"

using namespace paramtest;

namespace {

// The next call of `function` throws what `raise` throws.
void throwFrom(const std::string& function, void (*raise)()) {
    fake::hooks().afterCall = [function, raise](const fake::Call& call) {
        if (call.function == function)
            raise();
    };
}

void raiseRuntimeError() {
    throw std::runtime_error("device gone");
}

void raiseBadAlloc() {
    throw std::bad_alloc();
}

// PP_KEYSPEC of a container makes the provider list the token's key pairs.
BOOL getKeySpec(CspContext& context) {
    DWORD keySpec = 0;
    DWORD length = sizeof keySpec;
    return CPGetProvParam(handleOf(context), PP_KEYSPEC, reinterpret_cast<BYTE*>(&keySpec), &length, 0);
}

BOOL setPin(CspContext& context) {
    const char pin[] = "1234";
    return CPSetProvParam(handleOf(context), PP_KEYEXCHANGE_PIN, reinterpret_cast<const BYTE*>(pin), 0);
}

}  // namespace

class EscapeTest : public ParamTest {
protected:
    void TearDown() override {
        fake::hooks().afterCall = nullptr;
        ParamTest::TearDown();
    }
};

TEST_F(EscapeTest, GetAnswersAnExceptionAsAnUnexpectedFailure) {
    fake::addToken(kSerial);
    CspContext context = tokenContext(kKeyA, {kKeyA});
    throwFrom("calyth_getKeyPairList", raiseRuntimeError);
    SetLastError(0);
    EXPECT_FALSE(getKeySpec(context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPGetProvParam: unexpected failure"), 1u);
}

TEST_F(EscapeTest, GetAnswersRunningOutOfMemoryAsAnUnexpectedFailure) {
    fake::addToken(kSerial);
    CspContext context = tokenContext(kKeyA, {kKeyA});
    throwFrom("calyth_getKeyPairList", raiseBadAlloc);
    SetLastError(0);
    EXPECT_FALSE(getKeySpec(context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPGetProvParam: unexpected failure"), 1u);
    EXPECT_FALSE(testsupport::logHasLine("ERROR", "CPGetProvParam: out of memory"));
}

TEST_F(EscapeTest, SetAnswersAnExceptionAsAnUnexpectedFailure) {
    fake::addToken(kSerial);
    CspContext context = tokenContext();
    throwFrom("calyth_validatePassword", raiseRuntimeError);
    SetLastError(0);
    EXPECT_FALSE(setPin(context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPSetProvParam: unexpected failure"), 1u);
    EXPECT_FALSE(hasValidatedPin(kSerial));
}

TEST_F(EscapeTest, SetAnswersRunningOutOfMemoryAsAnUnexpectedFailure) {
    fake::addToken(kSerial);
    CspContext context = tokenContext();
    throwFrom("calyth_validatePassword", raiseBadAlloc);
    SetLastError(0);
    EXPECT_FALSE(setPin(context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(testsupport::logLineCount("ERROR", "CPSetProvParam: unexpected failure"), 1u);
}
