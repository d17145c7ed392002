#include "csp_fixture.h"

#include "token/process_state.h"
#include "token/token_table.h"

namespace csptest {

void CspTest::SetUp() {
    fake::reset();
    resetTokenTableForTests();
    clearProcessIv();
    g_useHardwareRng = true;
    testsupport::makeLogFolders();
    testsupport::clearLog();
}

void CspTest::TearDown() {
    g_useHardwareRng = true;
}

void openOnToken(CspContext& context, const std::string& serial) {
    context.serialNumber = serial;
    context.initialized = true;
    context.keysetType = CSP_KEYSET_TYPE;
}

}  // namespace csptest
