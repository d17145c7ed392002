// The thread's last error for the provider's failure codes.
#pragma once

#include <windows.h>

// NTE_ codes are HRESULTs (negative LONGs); the thread's last error keeps the same 32 bits as a
// DWORD. Every failure code of the provider is set here, so the conversion lives in one place.
inline void setLastErrorCode(HRESULT code) {
    SetLastError(static_cast<DWORD>(code));
}
