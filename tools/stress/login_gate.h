// A reader-writer gate on a Windows slim reader/writer lock, usable with std::shared_lock and
// std::unique_lock.
//
// Not std::shared_mutex: with this toolchain (mingw-w64, posix threads) it sits on winpthreads'
// rwlock, whose static initialiser is completed lazily by the first call, and threads that use a
// fresh one for the first time together can end up on different locks. Measured under Wine: 8
// threads taking a new std::shared_mutex shared and then exclusive, 300 times, overlapped inside
// the exclusive section 2907 times out of 7200, and one such run deadlocked; taking it once before
// the threads start removed every overlap. The stress run's PIN gates are first used by all its
// threads at once, which let two threads enter a token's PIN 0 to 10 ms apart.
// An SRWLOCK is complete from SRWLOCK_INIT on.
#pragma once

#include <windows.h>

namespace stress {

class LoginGate {
public:
    LoginGate() = default;
    LoginGate(const LoginGate&) = delete;
    LoginGate& operator=(const LoginGate&) = delete;

    void lock() { AcquireSRWLockExclusive(&lock_); }
    void unlock() { ReleaseSRWLockExclusive(&lock_); }
    void lock_shared() { AcquireSRWLockShared(&lock_); }
    void unlock_shared() { ReleaseSRWLockShared(&lock_); }

private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};

}  // namespace stress
