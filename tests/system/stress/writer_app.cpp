// stress_writer_app.exe SERIAL PIN: an application that writes to a token through the provider's
// CNG function table (one new P-256 key), for the writer-kill test to terminate at any point.
#include <windows.h>

#include <string>

#include "support/cng_client.h"

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    cngtest::CngClient client;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    if (!client.loaded() || client.openProvider(&provider) != 0)
        return 1;
    SECURITY_STATUS status = client.setPin(provider, argv[2]);
    if (status == 0)
        status = client.createPersistedKey(provider, &key, BCRYPT_ECDSA_P256_ALGORITHM);
    if (status == 0)
        status = client.finalizeKey(provider, key);
    if (key)
        client.freeKey(provider, key);
    client.freeProvider(provider);
    return status == 0 ? 0 : 1;
}
