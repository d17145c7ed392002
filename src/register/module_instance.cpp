#include "register/module_instance.h"

HINSTANCE g_moduleInstance = nullptr;
