#include "thread_lists.h"

#include <windows.h>

#include <mutex>
#include <set>

namespace softtoken {
namespace {

std::mutex registryMutex;
DWORD slot = TLS_OUT_OF_INDEXES;

std::set<ThreadLists*>& registry() {
    static auto* all = new std::set<ThreadLists*>();
    return *all;
}

DWORD tlsSlot() {
    static std::once_flag once;
    std::call_once(once, [] { slot = TlsAlloc(); });
    return slot;
}

}  // namespace

ThreadLists& threadLists() {
    DWORD index = tlsSlot();
    auto* lists = static_cast<ThreadLists*>(TlsGetValue(index));
    if (!lists) {
        lists = new ThreadLists;
        TlsSetValue(index, lists);
        std::lock_guard<std::mutex> guard(registryMutex);
        registry().insert(lists);
    }
    return *lists;
}

void releaseThreadLists() {
    if (slot == TLS_OUT_OF_INDEXES)
        return;
    auto* lists = static_cast<ThreadLists*>(TlsGetValue(slot));
    if (!lists)
        return;
    TlsSetValue(slot, nullptr);
    {
        std::lock_guard<std::mutex> guard(registryMutex);
        registry().erase(lists);
    }
    delete lists;
}

void releaseAllThreadLists() {
    std::lock_guard<std::mutex> guard(registryMutex);
    for (ThreadLists* lists : registry())
        delete lists;
    registry().clear();
    if (slot != TLS_OUT_OF_INDEXES)
        TlsFree(slot);
    slot = TLS_OUT_OF_INDEXES;
}

}  // namespace softtoken
