// One thread per process polls the connected tokens every second and forgets (erases from the
// token table) every token that is no longer connected.
#pragma once

// Started by the first acquisition that needs a token (both front-ends); a second start is a
// logged no-op.
void startDeviceMonitor();
// Runs when the library unloads (also callable directly): asks the thread to finish and, where a
// join is safe, waits for it.
void stopDeviceMonitor();
bool isDeviceMonitorRunning();
bool isDeviceMonitorStopRequested();
