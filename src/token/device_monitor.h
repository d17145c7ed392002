// One thread per process polls the connected tokens every second and forgets (erases from the
// token table) every token that is no longer connected.
#pragma once

void startDeviceMonitor();
void stopDeviceMonitor();
bool isDeviceMonitorRunning();
