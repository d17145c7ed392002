// Keeps every exception inside the provider: the body of an entry point runs here, and whatever
// escapes it becomes the front-end's own failure (a status code, or FALSE with a last error).
#pragma once

#include <new>
#include <string>

// `fail(outOfMemory, message)` makes the failure; the message names the entry point.
template <typename Result, typename Body, typename Fail>
Result guardEntryPoint(const char* name, Body body, Fail fail) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(true, std::string(name) + ": out of memory");
    } catch (...) {
        return fail(false, std::string(name) + ": unexpected failure");
    }
}
