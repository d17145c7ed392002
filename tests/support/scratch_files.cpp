#include "scratch_files.h"

#include <cstring>
#include <gtest/gtest.h>

#include "support/test_support.h"
#include "util/utils.h"

namespace testsupport {

std::string tempPath(const std::string& fileName) {
    return tempFolder() + fileName;
}

std::string writeTemp(const std::string& fileName, const Bytes& bytes) {
    std::string path = tempPath(fileName);
    writeFile(path, bytes);
    return path;
}

Bytes readTemp(const std::string& fileName) {
    return readFile(tempPath(fileName));
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes reversed(Bytes bytes) {
    return Bytes(bytes.rbegin(), bytes.rend());
}

std::string hex(const Bytes& bytes) {
    return Utils().bytesToHex(bytes.data(), static_cast<int>(bytes.size()));
}

Bytes unhex(const std::string& text) {
    return hexToBytes(text);
}

Bytes opensslModulus(const std::string& publicKeyPemPath) {
    std::string output;
    int code = runOpenSsl("rsa -pubin -noout -modulus -in " + unixPath(publicKeyPemPath), &output);
    EXPECT_EQ(code, 0) << output;
    size_t at = output.find("Modulus=");
    if (code != 0 || at == std::string::npos)
        return {};
    Bytes modulus = hexToBytes(Utils().trim(output.substr(at + 8)));
    while (modulus.size() > 1 && modulus.front() == 0)
        modulus.erase(modulus.begin());
    return modulus;
}

Bytes publicKeyBlob(const Bytes& modulusBigEndian, ALG_ID algorithm) {
    BLOBHEADER header{PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, algorithm};
    RSAPUBKEY rsa{0x31415352, static_cast<DWORD>(modulusBigEndian.size() * 8), 65537};
    Bytes blob(sizeof header + sizeof rsa);
    std::memcpy(blob.data(), &header, sizeof header);
    std::memcpy(blob.data() + sizeof header, &rsa, sizeof rsa);
    Bytes little = reversed(modulusBigEndian);
    blob.insert(blob.end(), little.begin(), little.end());
    return blob;
}

}  // namespace testsupport
