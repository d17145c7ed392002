// calyth-agent: puts the certificates of the plugged tokens into the current user's certificate
// store, where applications look for them, and takes them out when the token is removed.
//
//   calyth-agent                 in the background of the user's session (started at logon)
//   calyth-agent --once          one pass, one line per certificate added, removed or kept
//   calyth-agent --remove-all    takes out everything the agent ever added (uninstall)
//   calyth-agent --stop          stops the background instance of this session
//
// A windows-subsystem program, so that the logon start opens no console window; a command run
// from a console prints there.
#include <windows.h>

#include <cstdio>
#include <string>

#include "agent_pass.h"
#include "background.h"
#include "calyth_version.h"
#include "log/log.h"

using namespace agent;

namespace {

const char* kUsage =
    "usage: calyth-agent [--once | --remove-all | --stop | --help | --version]\n"
    "  Puts the certificates of the connected tokens into the current user's certificate store:\n"
    "  each key pair's certificate into \"MY\" (Personal) with the key provider information that\n"
    "  lets applications sign with it through \"Calyth Cryptographic Provider CSP\", and the\n"
    "  intermediate authorities stored on the token into \"CA\". It never adds a root, never asks\n"
    "  for the PIN, and changes or removes only certificates it added itself.\n"
    "  (no option)    runs in the background of this session: looks at the tokens every second and\n"
    "                 follows a plug or removal within two seconds; one instance per session\n"
    "  --once         one pass: prints a line per certificate added, removed or kept, then exits\n"
    "  --remove-all   stops the background instance of this session and takes out of both stores\n"
    "                 every certificate the agent added (what uninstalling does)\n"
    "  --stop         stops the background instance of this session\n"
    "  Exit codes: 0 done, 1 failed (message on standard error), 2 bad command line, 3 another\n"
    "  instance already runs in this session.\n";

// A windows-subsystem program gets no console of its own: print into the console of the command
// that started it, unless its output was redirected.
void useParentConsole() {
    HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if ((output == nullptr || output == INVALID_HANDLE_VALUE) && AttachConsole(ATTACH_PARENT_PROCESS)) {
        // Without the console the messages have nowhere to go either way: nothing to handle.
        (void)std::freopen("CONOUT$", "w", stdout);
        (void)std::freopen("CONOUT$", "w", stderr);
    }
}

int fail(const std::string& message) {
    logError("calyth-agent: " + message);
    (void)std::fprintf(stderr, "calyth-agent: %s\n", message.c_str());
    return 1;
}

bool loadLibrary(tokenview::DeviceFunctions* library, std::string* problem) {
    DWORD error = 0;
    std::vector<std::string> missing;
    // The library the provider uses: the one beside the registered CalythCSP.dll.
    const std::string folder = tokenview::deviceLibraryFolder(tokenview::registeredProviderDll());
    if (!tokenview::loadDeviceFunctions(folder, library, &error, &missing)) {
        *problem = "the device library CalythDSCLibrary.dll cannot be loaded from " + folder + " (error " +
                   std::to_string(error) + "): install the token maker's package";
        return false;
    }
    if (!library->complete()) {
        *problem = library->path + " lacks " + std::to_string(missing.size()) +
                   " of the device library's functions (first: " + missing.front() + ")";
        return false;
    }
    return true;
}

int printResult(const PassResult& result) {
    for (const std::string& line : result.lines)
        std::printf("%s\n", line.c_str());
    if (!result.error.empty())
        return fail(result.error);
    std::printf("calyth-agent: %d added, %d updated, %d removed, %d kept\n", result.added, result.updated,
                result.removed, result.kept);
    return 0;
}

int once(const StoreNames& names) {
    tokenview::DeviceFunctions library;
    std::string problem;
    if (!loadLibrary(&library, &problem))
        return fail(problem);
    DeviceSession session{&library, {}};
    return printResult(propagate(readConnectedTokens(&session, markedSerials(names)), names));
}

int background(const StoreNames& names) {
    tokenview::DeviceFunctions library;
    std::string problem;
    if (!loadLibrary(&library, &problem))
        return fail(problem);
    BackgroundExit exit = runInBackground(library, names);
    if (exit == kAlreadyRunning)
        (void)std::fprintf(stderr, "calyth-agent: already running in this session; this start exits\n");
    return exit;
}

int usageError(const std::string& message) {
    (void)std::fprintf(stderr, "calyth-agent: %s\n\n%s", message.c_str(), kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    useParentConsole();
    if (argc > 2)
        return usageError("one option at most");
    std::string option = argc == 2 ? argv[1] : "";
    StoreNames names;
    if (option == "--help" || option == "-h") {
        std::printf("%s", kUsage);
        return 0;
    }
    if (option == "--version") {
        std::printf("calyth-agent %s\n", CALYTH_VERSION_TEXT);
        return 0;
    }
    logDebug("calyth-agent " + std::string(option.empty() ? "(background)" : option));
    if (option == "--once")
        return once(names);
    if (option == "--remove-all") {
        // A background instance of this session would put the certificates back.
        stopBackgroundInstance();
        return printResult(removeAll(names));
    }
    if (option == "--stop") {
        if (stopBackgroundInstance())
            return 0;
        return fail("no instance runs in this session");
    }
    if (!option.empty())
        return usageError("unknown argument '" + option + "'");
    return background(names);
}
