#pragma once
#include <windows.h>

// The provider library's own module, recorded at load; the PIN dialog template is loaded from it.
// Null inside a test program, where the resources are linked into the program itself.
extern HINSTANCE g_moduleInstance;
