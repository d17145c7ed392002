#include "cert/certificate_import.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "cert/ca_folder.h"
#include "log/log.h"
#include "util/bounded_length.h"
#include "util/utils.h"

namespace {

constexpr size_t kLabelLimit = 128;

struct CaEntry {
    CalythCertificate record;
    CertificateDetails details;
};

// Normalised subject name -> the first CA file that carries it.
using CaTable = std::map<std::string, CaEntry>;

void writeLabel(CalythCertificate& record, const std::string& label) {
    std::memset(record.label, 0, sizeof record.label);
    std::memcpy(record.label, label.data(), std::min(label.size(), kLabelLimit));
}

std::string labelOf(const CalythCertificate& record) {
    return fieldText(record.label);
}

CaTable loadCaTable(const std::string& folder, void* deviceContext) {
    Utils utils;
    std::vector<std::string> extensions(std::begin(kCaFileExtensions), std::end(kCaFileExtensions));
    CalythFileList files = calyth_getFilesWithExtensionsAndConvertDER(folder, extensions, deviceContext);
    CaTable table;
    for (const auto& file : files) {
        const std::vector<unsigned char>& der = file.second;
        if (der.empty() || !lengthFits(der.size(), sizeof(CalythCertificate::der)))
            continue;
        CertificateDetails details;
        if (calyth_getCertificateDetails(der.data(), static_cast<int>(der.size()), details, deviceContext) !=
            0)
            continue;
        std::string subject = utils.normalizeName(details.subjectName);
        if (table.count(subject) != 0)
            continue;
        CaEntry entry{};
        std::memcpy(entry.record.der, der.data(), der.size());
        entry.record.derLength = static_cast<int32_t>(der.size());
        writeLabel(entry.record, subject.substr(0, kLabelLimit));
        entry.details = std::move(details);
        table.emplace(subject, std::move(entry));
    }
    return table;
}

// Leaf first, then its issuers up to a self-signed CA; empty when an issuer is missing.
std::vector<CalythCertificate*> gatherCaChain(CalythCertificate& leaf, const CertificateDetails& leafDetails,
                                              CaTable& table) {
    Utils utils;
    std::vector<CalythCertificate*> chain{&leaf};
    std::set<std::string> visited;
    std::string issuer = utils.normalizeName(leafDetails.issuerName);
    while (!issuer.empty()) {
        auto found = table.find(issuer);
        if (found == table.end()) {
            logDebug("importCertificateWithChain: Issuer '" + issuer +
                     "' NOT found \xE2\x80\x94 skipping chain import");
            chain.clear();
            break;
        }
        // Two CA files naming each other as issuer would otherwise never end.
        if (!visited.insert(issuer).second)
            break;
        chain.push_back(&found->second.record);
        std::string subject = utils.normalizeName(found->second.details.subjectName);
        std::string next = utils.normalizeName(found->second.details.issuerName);
        if (subject == next)
            break;
        issuer = next;
    }
    return chain;
}

void nameUnnamedKeyPair(const std::string& serial, const std::string& pin, const std::string& label,
                        const CertificateDetails& leafDetails, void* deviceContext) {
    Utils utils;
    std::vector<CalythKeyPair> keyPairs = calyth_getKeyPairList(serial.c_str(), deviceContext);
    const std::vector<unsigned char>& publicKey = leafDetails.publicKey;
    for (const CalythKeyPair& keyPair : keyPairs) {
        if (!lengthFits(keyPair.publicKeyLength, sizeof keyPair.publicKey) ||
            static_cast<size_t>(keyPair.publicKeyLength) != publicKey.size())
            continue;
        if (!std::equal(publicKey.begin(), publicKey.end(), keyPair.publicKey))
            continue;
        std::string alias = fieldText(keyPair.label);
        if (utils.trim(alias).empty()) {
            logDebug("importCertificateWithChain: updating empty key pair alias to: " + label);
            calyth_updateKeyPairDetails(serial.c_str(), keyPair.keyId, pin.c_str(), label.c_str(), nullptr, 0,
                                        deviceContext);
        }
        return;
    }
}

}  // namespace

int32_t importCertificateWithChain(const std::string& serial, const std::string& pin,
                                   CalythCertificate& certificate, void* deviceContext) {
    Utils utils;
    // The leaf's length is held to its record before anything reads it: the parser and every import
    // below see the record's own bytes only.
    certificate.derLength = static_cast<int32_t>(fieldLength(certificate.der, certificate.derLength));
    CertificateDetails leafDetails;
    int result =
        calyth_getCertificateDetails(certificate.der, certificate.derLength, leafDetails, deviceContext);
    if (result != 0) {
        logError("importCertificateWithChain: certificate parsing failed");
        return result;
    }

    std::string label = utils.trim(labelOf(certificate));
    if (label.empty()) {
        label = (leafDetails.subjectCommonName + "_" + leafDetails.issuerCommonName).substr(0, kLabelLimit);
        writeLabel(certificate, label);
        logDebug("importCertificateWithChain: label not provided, using: " + label);
    }

    std::string folder = caCertificateFolder();
    logDebug("importCertificateWithChain: CA Folder: " + folder);
    CaTable caTable = loadCaTable(folder, deviceContext);
    std::vector<CalythCertificate*> chain = gatherCaChain(certificate, leafDetails, caTable);

    if (!chain.empty()) {
        std::reverse(chain.begin(), chain.end());
        for (size_t i = 0; i < chain.size(); ++i) {
            result = calyth_importCertificate(serial.c_str(), pin.c_str(), chain[i], deviceContext);
            if (result != 0) {
                logError("importCertificateWithChain: chain import failed at index " + std::to_string(i) +
                         " ret=" + std::to_string(result));
                return result;
            }
        }
        logDebug("importCertificateWithChain: certificate imported successfully");
    } else {
        logDebug(
            "importCertificateWithChain: chain import skipped \xE2\x80\x94 performing normal leaf import");
        result = calyth_importCertificate(serial.c_str(), pin.c_str(), &certificate, deviceContext);
        if (result != 0) {
            logError("importCertificateWithChain: leaf import failed ret=" + std::to_string(result));
            return result;
        }
    }

    nameUnnamedKeyPair(serial, pin, label, leafDetails, deviceContext);
    return 0;
}
