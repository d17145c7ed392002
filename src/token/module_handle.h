// The provider library's own module, recorded by DllMain when the library loads; the PIN dialog
// template is loaded from it. Null inside a test program, where the resources are linked into the
// program itself.
#pragma once

#include <windows.h>

HINSTANCE providerModule();
void setProviderModule(HINSTANCE module);
