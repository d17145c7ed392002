// Objects on a token (key pairs, AES keys, certificates): adding, removing and changing them, and
// their device records. Used by the device functions and by the admin tool alike.
#pragma once

#include <string>

#include "private_key_file.h"
#include "token/device_library.h"
#include "token_store.h"

namespace softtoken {

constexpr size_t kMaxLabelLength = 131;  // the records hold 132 bytes with the terminating zero

// Generates a key pair (outside any lock) and adds it. derPublicKey stores the public key as a DER
// SubjectPublicKeyInfo instead of the raw modulus or point.
int addGeneratedKey(const std::string& serial, int32_t sizeCode, int32_t usage, const std::string& label,
                    bool derPublicKey, KeyRecord& out);
// Adds a key pair made elsewhere (readPrivateKeyFile).
int addImportedKey(const std::string& serial, const ImportedKeyPair& pair, int32_t usage,
                   const std::string& label, KeyRecord& out);
int removeKey(const std::string& serial, const unsigned char* keyId, bool withCertificates);
// label null leaves the label; objectId null or objectIdLength 0 leaves the object identifier.
int changeKey(const std::string& serial, const unsigned char* keyId, const char* label,
              const unsigned char* objectId, int objectIdLength);

// Stores a certificate, linked to the key pair whose object identifier is `objectId` when one is
// given, else to the key pair whose public key it carries. The same DER bytes stored twice keep one
// copy (`out` then describes the stored one).
int addCertificate(const std::string& serial, const Bytes& der, const std::string& label,
                   CertificateRecord& out, const Bytes& objectId = {});

// type 8 or 10 with a 16, 24 or 32-byte AES key, or 11 with a 24-byte three-key 3DES key.
int addAesKey(const std::string& serial, const Bytes& key, int32_t type, const std::string& label,
              AesRecord& out);

// The public key of a key pair record, whatever form it is kept in.
bool keyPublicKey(const KeyRecord& key, PublicKey& out);

CalythKeyPair toDeviceRecord(const KeyRecord& key);
CalythSymmetricKey toDeviceRecord(const AesRecord& key);
CalythCertificate toDeviceRecord(const CertificateRecord& certificate);

// A key named by 32 hexadecimal characters or by its label; nullptr when none or ambiguous.
const KeyRecord* findKeyByName(const TokenData& token, const std::string& name);

}  // namespace softtoken
