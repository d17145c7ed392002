// Keeps every exception inside the provider: the body of an entry point runs here, and whatever
// escapes it becomes the front-end's own failure (a status code, or FALSE with a last error).
#pragma once

#include <exception>
#include <new>
#include <string>

// What escaped the body of an entry point.
struct EscapedException {
    const char* entryPoint;
    bool outOfMemory;
    // Any std::exception other than std::bad_alloc (valid while the failure is made); null for an
    // exception of another type.
    const std::exception* standardException;
    // "<entryPoint>: out of memory" or "<entryPoint>: unexpected failure".
    std::string message;
};

// `fail(escaped)` makes the failure.
template <typename Result, typename Body, typename Fail>
Result guardEntryPoint(const char* name, Body body, Fail fail) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(EscapedException{name, true, nullptr, std::string(name) + ": out of memory"});
    } catch (const std::exception& exception) {
        return fail(EscapedException{name, false, &exception, std::string(name) + ": unexpected failure"});
    } catch (...) {
        return fail(EscapedException{name, false, nullptr, std::string(name) + ": unexpected failure"});
    }
}
