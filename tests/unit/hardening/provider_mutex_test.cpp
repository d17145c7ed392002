// The provider never holds its shared mutex across a device call. The fake device library tries
// that mutex during every call it serves and fails the running test when the calling thread holds
// it, in every unit-test program; here both front-ends run their main paths under that watch, and
// the watch itself is shown to catch a call made with the mutex held.
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include "both_front_ends.h"
#include "token/token_table.h"

using namespace hardening;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class ProviderMutex : public BothFrontEnds {};

TEST_F(ProviderMutex, NoDeviceCallOfEitherFrontEndIsMadeWithTheMutexHeld) {
    runCryptoApi("1234");
    runCng("1234");
    EXPECT_GT(fake::calls().size(), 30u);
    EXPECT_THAT(fake::callsUnderProviderMutex(), IsEmpty());
}

void listDevices() {
    calyth_getConnectedDeviceList(false, nullptr);
}

TEST_F(ProviderMutex, ADeviceCallWithTheMutexHeldFailsTheTest) {
    providerMutex().lock();
    EXPECT_NONFATAL_FAILURE(listDevices(), "was called while the provider's mutex was held");
    providerMutex().unlock();
    EXPECT_THAT(fake::callsUnderProviderMutex(), ElementsAre("calyth_getConnectedDeviceList"));
}

}  // namespace
