/* Keeps Wine's desktop process of a test run alive, on the run's display, for the whole run.
 *
 * Wine closes a desktop about a second after the last process other than its owner leaves it, and
 * the next program that touches a window starts a new one with that program's environment. Under
 * a parallel test run that program may be a headless one: the new desktop then has no display and
 * every dialog test running beside it fails, or waits for windows that never appear. This program
 * stays on the desktop (one hidden window) until the wineserver is stopped, so the desktop that
 * tests/wine-env.sh starts on the display is the only one of the run. */
#include <windows.h>

int WINAPI WinMain(HINSTANCE instance, HINSTANCE previous, LPSTR commandLine, int show) {
    (void)instance;
    (void)previous;
    (void)commandLine;
    (void)show;
    HWND window =
        CreateWindowExA(0, "STATIC", "calyth desktop keeper", 0, 0, 0, 0, 0, NULL, NULL, NULL, NULL);
    if (!window)
        return 1;
    MSG message;
    while (GetMessageA(&message, NULL, 0, 0) > 0)
        DispatchMessageA(&message);
    return 0;
}
