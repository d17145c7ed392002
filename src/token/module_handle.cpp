#include "token/module_handle.h"

namespace {

// Written once, by DllMain at process attach, before any entry point can run.
HINSTANCE g_providerModule = nullptr;

}  // namespace

HINSTANCE providerModule() {
    return g_providerModule;
}

void setProviderModule(HINSTANCE module) {
    g_providerModule = module;
}
