// The fake device library is linked into the test program, so it is always there.
#include "token/device_library_loading.h"

bool deviceLibraryAvailable() {
    return true;
}
