#include "cryptoapi_support.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sstream>

#include "support/test_support.h"
#include "util/utils.h"

namespace clienttest {

std::string programFolder() {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string text(path, length);
    return text.substr(0, text.find_last_of("\\/") + 1);
}

std::string providerImagePath() {
    return programFolder() + "CalythCSP.dll";
}

LONG registerProvider() {
    HKEY key = nullptr;
    LONG status = RegCreateKeyExA(HKEY_LOCAL_MACHINE, kProviderKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                  KEY_SET_VALUE, nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS)
        return status;
    std::string image = providerImagePath();
    DWORD type = PROV_RSA_FULL;
    status = RegSetValueExA(key, "Image Path", 0, REG_SZ, reinterpret_cast<const BYTE*>(image.c_str()),
                            static_cast<DWORD>(image.size() + 1));
    if (status == ERROR_SUCCESS)
        status = RegSetValueExA(key, "Type", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&type), sizeof type);
    RegCloseKey(key);
    return status;
}

bool readRegistration(std::string* imagePath, DWORD* type) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kProviderKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return false;
    char image[MAX_PATH * 2] = {};
    DWORD imageSize = sizeof image - 1;
    DWORD valueType = 0;
    bool ok = RegQueryValueExA(key, "Image Path", nullptr, &valueType, reinterpret_cast<BYTE*>(image),
                               &imageSize) == ERROR_SUCCESS &&
              valueType == REG_SZ;
    DWORD typeSize = sizeof *type;
    ok = ok &&
         RegQueryValueExA(key, "Type", nullptr, &valueType, reinterpret_cast<BYTE*>(type), &typeSize) ==
             ERROR_SUCCESS &&
         valueType == REG_DWORD;
    RegCloseKey(key);
    *imagePath = image;
    return ok;
}

std::string useFreshTokenStore(const std::string& name) {
    std::string folder = testsupport::tempFolder() + name;
    testsupport::removeFolder(folder);
    CreateDirectoryA(folder.c_str(), nullptr);
    SetEnvironmentVariableA("CALYTH_TOKEN_STORE", folder.c_str());
    return folder;
}

int calythToken(const std::string& arguments, std::string* output) {
    return testsupport::runCommand("\"" + programFolder() + "calyth-token.exe\" " + arguments, output);
}

bool createToken(const std::string& serial, const std::string& pin) {
    std::string output;
    int code = calythToken("init --serial " + serial + " --pin " + pin, &output);
    EXPECT_EQ(code, 0) << output;
    return code == 0;
}

std::string generateKey(const std::string& serial, const std::string& usage, const std::string& label) {
    std::string output;
    std::string arguments = "genkey --serial " + serial + " --type rsa2048 --usage " + usage;
    if (!label.empty())
        arguments += " --label " + label;
    int code = calythToken(arguments, &output);
    EXPECT_EQ(code, 0) << output;
    std::string id = Utils().trim(output);
    EXPECT_EQ(id.size(), 32u) << output;
    return code == 0 && id.size() == 32 ? id : std::string();
}

std::string exportPublicKey(const std::string& serial, const std::string& keyId,
                            const std::string& fileName) {
    std::string path = tempPath(fileName);
    std::string output;
    int code = calythToken("export-pubkey --serial " + serial + " --key " + keyId + " --out \"" + path + "\"",
                           &output);
    EXPECT_EQ(code, 0) << output;
    return code == 0 ? path : std::string();
}

std::vector<std::string> listedLines(const std::string& serial, const std::string& word) {
    std::string output;
    EXPECT_EQ(calythToken("list --serial " + serial, &output), 0) << output;
    std::vector<std::string> lines;
    std::istringstream in(output);
    std::string line;
    while (std::getline(in, line)) {
        std::string trimmed = Utils().trim(line);
        if (trimmed.compare(0, word.size() + 1, word + " ") == 0)
            lines.push_back(trimmed);
    }
    return lines;
}

std::vector<std::string> listedKeyIds(const std::string& serial) {
    std::vector<std::string> ids;
    for (const std::string& line : listedLines(serial, "key"))
        ids.push_back(line.substr(4, 32));
    return ids;
}

std::string tempPath(const std::string& fileName) {
    return testsupport::tempFolder() + fileName;
}

std::string writeTemp(const std::string& fileName, const Bytes& bytes) {
    std::string path = tempPath(fileName);
    testsupport::writeFile(path, bytes);
    return path;
}

Bytes readTemp(const std::string& fileName) {
    return testsupport::readFile(tempPath(fileName));
}

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes reversed(Bytes bytes) {
    return Bytes(bytes.rbegin(), bytes.rend());
}

int openssl(const std::string& arguments, std::string* output) {
    return testsupport::runOpenSsl(arguments, output);
}

Bytes opensslModulus(const std::string& publicKeyPemPath) {
    std::string output;
    int code = openssl("rsa -pubin -noout -modulus -in " + testsupport::unixPath(publicKeyPemPath), &output);
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

BOOL acquire(Provider& provider, const char* container, DWORD flags) {
    return CryptAcquireContextA(&provider.handle, container, kProviderName, PROV_RSA_FULL, flags);
}

std::string stringProvParam(HCRYPTPROV provider, DWORD param, DWORD flags) {
    char buffer[512] = {};
    DWORD length = sizeof buffer;
    if (!CryptGetProvParam(provider, param, reinterpret_cast<BYTE*>(buffer), &length, flags))
        return std::string();
    return std::string(buffer, strnlen(buffer, sizeof buffer));
}

}  // namespace clienttest
