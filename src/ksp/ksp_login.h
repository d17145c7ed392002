// The CNG front-end's PIN check: the token's login mapped to a plain answer and the KSP's log lines.
#pragma once

#include <string>

// True when the token's PIN is (now) held: already validated, single sign-on, or the dialog. Never
// refuses for silence (the callers that honour NCRYPT_SILENT_FLAG check it first) and sets no
// status itself.
bool kspEnsurePasswordValidated(const std::string& serialNumber, void* deviceContext);
