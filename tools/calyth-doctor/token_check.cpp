#include <cstring>

#include "cert/ca_folder.h"
#include "certificate_chain.h"
#include "checks.h"
#include "token_view.h"
#include "util/utils.h"

namespace doctor {
namespace {

std::string ssoState(const TokenInfo& info) {
    if (info.userLoggedIn == 1 && info.ssoValid == 1)
        return "single sign-on on (no PIN asked)";
    if (info.userLoggedIn == 1)
        return "single sign-on expired (the PIN is asked again)";
    return "single sign-on off";
}

std::string keyLine(const TokenKey& key) {
    std::string line = "key " + key.id + (key.label.empty() ? "" : " \"" + key.label + "\"") + ": " +
                       keyAlgorithm(key.record) + ", " + keyUsageText(key.record.keyUsage);
    return line +
           (key.certificate.empty() ? ", no certificate" : ", certificate \"" + key.certificate + "\"");
}

Check tokenCheck(const std::string& serial, const TokenInfo& info, const TokenView& view) {
    std::string name = "Token " + serial;
    Check check =
        makeCheck(name, Verdict::Ok,
                  "label \"" + info.label + "\", firmware " +
                      (info.firmwareVersion.empty() ? "unknown" : info.firmwareVersion) + ", " +
                      ssoState(info) + ", " + std::to_string(info.pinAttemptsLeft) + " PIN attempts left");
    if (!info.manufacturer.empty() || !info.model.empty())
        check.facts.push_back("made by " + info.manufacturer + (info.model.empty() ? "" : ", " + info.model));
    for (const TokenKey& key : view.keys)
        check.facts.push_back(keyLine(key));
    for (const TokenCertificate& certificate : view.certificates) {
        if (certificate.isAuthority)
            check.facts.push_back("CA certificate \"" + certificate.details.subjectName + "\", valid to " +
                                  certificate.details.notAfter);
    }
    if (view.keys.empty())
        check.facts.push_back("no key pairs");
    if (info.pinAttemptsLeft <= 0) {
        check.verdict = Verdict::Fail;
        check.detail = "the PIN is locked (no attempts left); " + check.detail;
        check.remedy =
            "unblock the PIN with the token maker's administration tool (soft token: calyth-token unlock "
            "--serial " +
            serial + "); until then the token signs and decrypts nothing";
    }
    return check;
}

Check certificateCheck(const std::string& serial, const TokenCertificate& certificate, HCERTSTORE extra,
                       const std::string& caFolder) {
    const CertificateDetails& details = certificate.details;
    Check check = makeCheck("Certificate \"" + details.subjectName + "\" on " + serial, Verdict::Ok,
                            "issued by \"" + details.issuerName + "\", valid " + details.notBefore + " to " +
                                details.notAfter + " UTC");
    ChainFinding chain = judgeChain(certificate.der, extra, caFolder);
    check.facts.push_back("chain: " + chain.path);
    check.facts.push_back(certificate.keyId.empty() ? "no key pair on the token"
                                                    : "key " + certificate.keyId);
    if (chain.verdict != Verdict::Ok) {
        check.verdict = chain.verdict;
        check.detail = chain.problems + "; " + check.detail;
        check.remedy = chain.remedy;
    } else {
        check.detail += ", chain builds to a trusted root";
    }
    if (certificate.keyId.empty() && check.verdict != Verdict::Fail) {
        check.verdict = Verdict::Warn;
        check.detail = "no key pair on the token for it; " + check.detail;
        check.remedy = "nothing can sign with this certificate: delete it, or import its key pair";
    }
    return check;
}

}  // namespace

void checkTokens(Report* report, const DeviceFunctions& library) {
    if (!library.complete()) {
        report->push_back(
            makeCheck("Tokens", Verdict::Skip, "not checked without a complete device library"));
        return;
    }
    library.init(0, nullptr, 2);
    std::vector<std::string> serials = library.getConnectedDeviceList(false, nullptr);
    if (serials.empty()) {
        report->push_back(
            makeCheck("Tokens", Verdict::Fail, "no token connected",
                      "plug the token in (directly, not through a hub) and run calyth-doctor again; "
                      "if it is plugged in, the device library does not see it: reinstall the token "
                      "maker's driver package"));
        return;
    }
    std::string list;
    for (const std::string& serial : serials)
        list += (list.empty() ? "" : ", ") + serial;
    report->push_back(
        makeCheck("Tokens", Verdict::Ok, std::to_string(serials.size()) + " connected: " + list));

    std::string caFolder = caCertificateFolder();
    std::vector<std::string> extensions(std::begin(kCaFileExtensions), std::end(kCaFileExtensions));
    CalythFileList caFiles = library.getFilesWithExtensionsAndConvertDER(caFolder, extensions, nullptr);

    for (const std::string& serial : serials) {
        int status = library.initDevice(serial.c_str(), false, nullptr);
        if (status != CALYTH_OK) {
            report->push_back(
                makeCheck("Token " + serial, Verdict::Fail,
                          "does not answer (device status " + std::to_string(status) + ")",
                          "unplug the token and plug it in again; if that does not help, the token "
                          "or its driver is faulty"));
            continue;
        }
        TokenInfo info = library.getTokenInfo(serial.c_str(), nullptr);
        if (info.label.empty()) {
            report->push_back(makeCheck("Token " + serial, Verdict::Fail, "answers no token information",
                                        "unplug the token and plug it in again"));
            continue;
        }
        TokenView view = readToken(library, serial);
        report->push_back(tokenCheck(serial, info, view));

        std::vector<std::vector<unsigned char>> extra;
        for (const TokenCertificate& certificate : view.certificates)
            extra.push_back(certificate.der);
        for (const auto& file : caFiles)
            extra.push_back(file.second);
        HCERTSTORE store = certificateStore(extra);
        for (const TokenCertificate& certificate : view.certificates) {
            if (!certificate.readable) {
                report->push_back(makeCheck("Certificate \"" + certificate.label + "\" on " + serial,
                                            Verdict::Fail, "the device library cannot read it",
                                            "delete it from the token and store the certificate again"));
            } else if (!certificate.isAuthority) {
                report->push_back(certificateCheck(serial, certificate, store, caFolder));
            }
        }
        CertCloseStore(store, 0);
        for (const TokenKey& key : view.keys) {
            if (key.certificate.empty())
                report->push_back(
                    makeCheck("Key " + key.id + " on " + serial, Verdict::Warn,
                              "key pair without a certificate (" + keyAlgorithm(key.record) + ")",
                              "store the key's certificate on the token: applications that choose "
                              "a certificate to sign with do not offer this key"));
        }
    }
}

}  // namespace doctor
