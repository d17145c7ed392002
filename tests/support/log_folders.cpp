// Apart from the rest of the test support: only programs linked with the provider's code have the
// log facility.
#include "log/log.h"
#include "support/test_support.h"

namespace testsupport {

void makeLogFolders() {
    static const bool made =
        (logDebug("log folders"), logDebug("log folders"), logDebug("log folders"), true);
    (void)made;
}

}  // namespace testsupport
