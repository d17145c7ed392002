// The lists returned by reference. Each thread gets its own vector per token and kind, refilled
// only by that thread's next call, so a list stays valid and unchanged while the calling thread
// copies it, whatever other threads (the provider's device monitor) call meanwhile.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "token/device_library.h"

namespace softtoken {

struct ThreadLists {
    std::map<std::string, std::vector<CalythKeyPair>> keyPairs;
    std::map<std::string, std::vector<CalythSymmetricKey>> symmetricKeys;
    std::map<std::string, std::vector<CalythCertificate>> certificates;
};

ThreadLists& threadLists();
// DLL_THREAD_DETACH: frees the lists of the ending thread.
void releaseThreadLists();
// DLL_PROCESS_DETACH on FreeLibrary: frees the lists of every thread.
void releaseAllThreadLists();

}  // namespace softtoken
