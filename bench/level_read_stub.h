// The provider's own time without its level reads, measured directly: the provider's import of
// RegGetValueA (in the loaded CalythCSP.dll) is pointed at a stand-in that answers level 2 at once,
// so that every log call takes the same path as at level 2 without the registry round trip. Only the
// benchmark process is changed; the log facility itself is not.
#pragma once

namespace bench {

// Points the import at the stand-in (`on`) or back at advapi32's RegGetValueA. False when the
// provider is not loaded or imports no RegGetValueA.
bool stubLevelReads(bool on);

}  // namespace bench
