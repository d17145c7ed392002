// Where the device library comes from.
//
// CalythCSP.dll delay-loads CalythDSCLibrary.dll and opens it by its full path in the provider's
// own folder: a CalythDSCLibrary.dll that sits beside the host program (the loader's first place
// for a DLL named only by its name) is never used. The front-ends ask before their first device
// call, so that a missing or incomplete library fails the opening cleanly instead of faulting in
// the delay-load helper.
#pragma once

// True when CalythDSCLibrary.dll beside the provider is loaded and exports every function of the
// contract. Decided once per process (the first answer stays), logged once when it fails.
// In CalythCSP.dll: src/register/device_library_loader.cpp. Unit tests link the fake device
// library, which answers true.
bool deviceLibraryAvailable();
