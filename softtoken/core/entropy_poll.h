#pragma once

namespace softtoken {

// Keeps libgcrypt's Windows entropy poll, in the module that holds this code, from asking for the
// list of every handle of every process. Call before libgcrypt first gathers entropy; false when
// the module's import of GetProcAddress could not be redirected.
bool keepEntropyPollOffHandleLists();

}  // namespace softtoken
