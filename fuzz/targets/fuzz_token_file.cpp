// The soft token's file format. The input is a token file whose checksum line is ignored: its body is
// parsed, and a token that parses is written out again and must read back the same.
#include <string>

#include "exact_copy.h"
#include "status.h"
#include "token_model.h"

using namespace softtoken;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::string body;
    std::string checksum;
    if (splitTokenFile(text, &body, &checksum))
        FUZZ_CHECK(body.size() + 4 + checksum.size() == text.size());

    TokenData token;
    if (parseTokenBody(text, token) != kOk)
        return 0;
    std::string file = serializeToken(token);
    TokenData again;
    FUZZ_CHECK(parseToken(file, again) == kOk);
    FUZZ_CHECK(serializeToken(again) == file);
    return 0;
}
