#include "certificate.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "public_key.h"
#include "status.h"
#include "util/utils.h"

namespace softtoken {
namespace {

std::string nameText(const CERT_NAME_BLOB& name) {
    DWORD flags = CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG;
    CERT_NAME_BLOB copy = name;
    DWORD length = CertNameToStrA(X509_ASN_ENCODING, &copy, flags, nullptr, 0);
    if (length <= 1)
        return "";
    std::string text(length, '\0');
    CertNameToStrA(X509_ASN_ENCODING, &copy, flags, &text[0], length);
    text.resize(length - 1);
    return text;
}

std::string commonName(PCCERT_CONTEXT certificate, DWORD issuerFlag) {
    char oid[] = szOID_COMMON_NAME;
    DWORD length = CertGetNameStringA(certificate, CERT_NAME_ATTR_TYPE, issuerFlag, oid, nullptr, 0);
    if (length <= 1)
        return "";
    std::string text(length, '\0');
    CertGetNameStringA(certificate, CERT_NAME_ATTR_TYPE, issuerFlag, oid, &text[0], length);
    text.resize(length - 1);
    return text;
}

std::string timeText(const FILETIME& time) {
    SYSTEMTIME utc;
    if (!FileTimeToSystemTime(&time, &utc))
        return "";
    char text[32];
    (void)std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", utc.wYear, utc.wMonth, utc.wDay,
                        utc.wHour, utc.wMinute, utc.wSecond);
    return text;
}

std::string serialText(const CRYPT_INTEGER_BLOB& serial) {
    // crypt32 keeps the serial little-endian; the token reports it big-endian without leading zeros.
    Bytes bigEndian(serial.pbData, serial.pbData + serial.cbData);
    std::reverse(bigEndian.begin(), bigEndian.end());
    size_t skip = 0;
    while (skip + 1 < bigEndian.size() && bigEndian[skip] == 0)
        ++skip;
    return Utils().bytesToHex(bigEndian.data() + skip, static_cast<int>(bigEndian.size() - skip));
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

int readCertificate(const unsigned char* der, int length, CertificateDetails& details, PublicKey* publicKey) {
    if (!der || length <= 0)
        return kBadArgument;
    PCCERT_CONTEXT certificate =
        CertCreateCertificateContext(X509_ASN_ENCODING, der, static_cast<DWORD>(length));
    if (!certificate)
        return kBadArgument;
    const CERT_INFO& info = *certificate->pCertInfo;
    CertificateDetails out;
    out.subjectName = nameText(info.Subject);
    out.issuerName = nameText(info.Issuer);
    out.subjectCommonName = commonName(certificate, 0);
    out.issuerCommonName = commonName(certificate, CERT_NAME_ISSUER_FLAG);
    out.serialNumberHex = serialText(info.SerialNumber);
    out.notBefore = timeText(info.NotBefore);
    out.notAfter = timeText(info.NotAfter);
    PublicKey key;
    if (parsePublicKeyInfo(info.SubjectPublicKeyInfo, key)) {
        out.publicKey = comparableForm(key);
        out.keySizeCode = key.sizeCode;
    }
    CERT_NAME_BLOB subject = info.Subject;
    CERT_NAME_BLOB issuer = info.Issuer;
    out.selfSigned = CertCompareCertificateName(X509_ASN_ENCODING, &subject, &issuer) != FALSE;
    CertFreeCertificateContext(certificate);
    details = out;
    if (publicKey)
        *publicKey = key;
    return kOk;
}

Bytes toDer(const Bytes& content) {
    static const std::string marker = "-----BEGIN";
    auto found = std::search(content.begin(), content.end(), marker.begin(), marker.end());
    if (found == content.end())
        return content;
    std::string text(found, content.end());
    DWORD length = 0;
    if (!CryptStringToBinaryA(text.c_str(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64HEADER,
                              nullptr, &length, nullptr, nullptr) ||
        length == 0)
        return {};
    Bytes der(length);
    if (!CryptStringToBinaryA(text.c_str(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64HEADER,
                              der.data(), &length, nullptr, nullptr))
        return {};
    der.resize(length);
    return der;
}

std::string toPem(const Bytes& der, const std::string& label) {
    DWORD length = 0;
    DWORD flags = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCR;
    if (der.empty() ||
        !CryptBinaryToStringA(der.data(), static_cast<DWORD>(der.size()), flags, nullptr, &length))
        return "";
    std::string base64(length, '\0');
    if (!CryptBinaryToStringA(der.data(), static_cast<DWORD>(der.size()), flags, &base64[0], &length))
        return "";
    base64.resize(length);
    while (!base64.empty() && (base64.back() == '\0' || base64.back() == '\n'))
        base64.pop_back();
    return "-----BEGIN " + label + "-----\n" + base64 + "\n-----END " + label + "-----\n";
}

bool readWholeFile(const std::string& path, Bytes& out) {
    HANDLE file =
        CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    LARGE_INTEGER size;
    bool ok = GetFileSizeEx(file, &size) && size.QuadPart < (64 << 20);
    if (ok) {
        out.assign(static_cast<size_t>(size.QuadPart), 0);
        DWORD got = 0;
        size_t done = 0;
        while (ok && done < out.size()) {
            ok = ReadFile(file, out.data() + done, static_cast<DWORD>(out.size() - done), &got, nullptr) &&
                 got > 0;
            done += got;
        }
    }
    CloseHandle(file);
    return ok;
}

CalythFileList listFilesAsDer(const std::string& folder, const std::vector<std::string>& extensions) {
    CalythFileList files;
    if (folder.empty())
        return files;
    std::string base = folder;
    if (base.back() != '\\' && base.back() != '/')
        base += '\\';
    std::vector<std::string> suffixes;
    for (const std::string& extension : extensions)
        if (!extension.empty())
            suffixes.push_back(lower(extension[0] == '.' ? extension : "." + extension));
    WIN32_FIND_DATAA entry;
    HANDLE search = FindFirstFileA((base + "*").c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE)
        return files;
    std::vector<std::string> names;
    do {
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            continue;
        std::string name = lower(entry.cFileName);
        for (const std::string& suffix : suffixes) {
            if (name.size() > suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                names.push_back(entry.cFileName);
                break;
            }
        }
    } while (FindNextFileA(search, &entry));
    FindClose(search);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        Bytes content;
        files.emplace_back(name, readWholeFile(base + name, content) ? toDer(content) : Bytes{});
    }
    return files;
}

}  // namespace softtoken
