#include "user_store.h"

#include <algorithm>
#include <memory>

#include "log/log.h"

namespace agent {
namespace {

Store openStore(const std::string& name, bool writable) {
    DWORD flags = CERT_SYSTEM_STORE_CURRENT_USER | (writable ? 0 : CERT_STORE_READONLY_FLAG);
    return Store(CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, 0, flags, name.c_str()));
}

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; text && *text; ++text)
        out.push_back(static_cast<char>(*text));
    return out;
}

std::string textProperty(PCCERT_CONTEXT certificate, DWORD property) {
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(certificate, property, nullptr, &size) || size < sizeof(wchar_t))
        return "";
    std::vector<wchar_t> value(size / sizeof(wchar_t) + 1, L'\0');
    if (!CertGetCertificateContextProperty(certificate, property, value.data(), &size))
        return "";
    return narrow(value.data());
}

bool setTextProperty(PCCERT_CONTEXT certificate, DWORD property, const std::string& text) {
    std::wstring value = wide(text);
    CRYPT_DATA_BLOB blob{static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)),
                         reinterpret_cast<BYTE*>(&value[0])};
    return CertSetCertificateContextProperty(certificate, property, 0, &blob) != FALSE;
}

// The serial of the agent's mark, "" for a certificate without it.
std::string markOf(PCCERT_CONTEXT certificate) {
    std::string description = textProperty(certificate, CERT_DESCRIPTION_PROP_ID);
    std::string prefix = kAgentMarkPrefix;
    if (description.size() <= prefix.size() || description.compare(0, prefix.size(), prefix) != 0)
        return "";
    return description.substr(prefix.size());
}

bool sameBytes(PCCERT_CONTEXT certificate, const std::vector<unsigned char>& der) {
    return certificate->cbCertEncoded == der.size() &&
           std::equal(der.begin(), der.end(), certificate->pbCertEncoded);
}

// Gives a certificate of the store the agent's mark, its friendly name and, in the personal store,
// its key provider information.
bool markAndName(PCCERT_CONTEXT certificate, const WantedCertificate& wanted, bool personal) {
    bool ok = setTextProperty(certificate, CERT_DESCRIPTION_PROP_ID, kAgentMarkPrefix + wanted.serial) &&
              setTextProperty(certificate, CERT_FRIENDLY_NAME_PROP_ID, wanted.friendlyName);
    if (ok && personal) {
        std::wstring container = wide(wanted.keyId);
        std::wstring provider = wide(kProviderName);
        CRYPT_KEY_PROV_INFO info{};
        info.pwszContainerName = &container[0];
        info.pwszProvName = &provider[0];
        info.dwProvType = wanted.providerType;
        info.dwKeySpec = wanted.keySpec;
        ok = CertSetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &info) != FALSE;
    }
    return ok;
}

bool add(HCERTSTORE store, const WantedCertificate& wanted, bool personal) {
    PCCERT_CONTEXT added = nullptr;
    if (!CertAddEncodedCertificateToStore(store, kEncoding, wanted.der.data(),
                                          static_cast<DWORD>(wanted.der.size()), CERT_STORE_ADD_NEW, &added))
        return false;
    if (!markAndName(added, wanted, personal)) {
        DWORD error = GetLastError();
        CertDeleteCertificateFromStore(added);  // never leave it unmarked: it would pass for the user's
        SetLastError(error);
        return false;
    }
    CertFreeCertificateContext(added);
    return true;
}

bool removeMarked(HCERTSTORE store, const std::vector<unsigned char>& der) {
    PCCERT_CONTEXT present = nullptr;
    while ((present = CertEnumCertificatesInStore(store, present)) != nullptr) {
        if (sameBytes(present, der) && !markOf(present).empty()) {
            // CertDeleteCertificateFromStore frees the context it is given; the enumeration ends here.
            bool ok = CertDeleteCertificateFromStore(CertDuplicateCertificateContext(present)) != FALSE;
            CertFreeCertificateContext(present);
            return ok;
        }
    }
    return true;
}

bool upToDate(PCCERT_CONTEXT present, const WantedCertificate& wanted, bool personal) {
    if (markOf(present) != wanted.serial ||
        textProperty(present, CERT_FRIENDLY_NAME_PROP_ID) != wanted.friendlyName)
        return false;
    return !personal || carriesKeyProviderOf(present, wanted);
}

std::string describe(const WantedCertificate& wanted) {
    return wanted.subject + " (token " + wanted.serial +
           (wanted.keyId.empty() ? "" : ", key " + wanted.keyId) + ")";
}

enum class Action { Add, Update, Remove };

struct Change {
    Action action;
    std::vector<unsigned char> der;
    const WantedCertificate* wanted = nullptr;  // Add and Update
    std::string line;
};

struct StorePlan {
    std::vector<Change> changes;
    std::vector<std::string> keptLines;
};

// The index in `wanted` of the entry with the same bytes as `present`, or wanted.size().
size_t wantedIndex(PCCERT_CONTEXT present, const std::vector<WantedCertificate>& wanted) {
    size_t i = 0;
    while (i < wanted.size() && !sameBytes(present, wanted[i].der))
        ++i;
    return i;
}

// Compares one store with what the plan wants there. `held` serials keep their marked entries.
bool compare(const std::string& storeName, const std::vector<WantedCertificate>& wanted,
             const std::set<std::string>& held, bool personal, StorePlan* out, std::string* error) {
    Store store = openStore(storeName, false);
    // A store that was never written does not exist yet: nothing is in it.
    if (!store && GetLastError() != ERROR_FILE_NOT_FOUND && GetLastError() != ERROR_PATH_NOT_FOUND) {
        *error = "cannot open the store " + storeName + " (error " + std::to_string(GetLastError()) + ")";
        return false;
    }
    std::vector<bool> found(wanted.size(), false);
    PCCERT_CONTEXT present = nullptr;
    while (store && (present = CertEnumCertificatesInStore(store.get(), present)) != nullptr) {
        std::string mark = markOf(present);
        size_t i = wantedIndex(present, wanted);
        if (i < wanted.size() && !found[i]) {
            found[i] = true;
            if (mark.empty())
                out->keptLines.push_back("left as it is in " + storeName + ": " + wanted[i].subject +
                                         " (there without the agent's mark: imported by the user)");
            else if (upToDate(present, wanted[i], personal))
                out->keptLines.push_back("kept in " + storeName + ": " + describe(wanted[i]));
            else
                out->changes.push_back({Action::Update, wanted[i].der, &wanted[i],
                                        "updated in " + storeName + ": " + describe(wanted[i])});
        } else if (!mark.empty() && held.count(mark) == 0) {
            WantedCertificate gone;
            gone.subject = subjectText(present);
            gone.serial = mark;
            out->changes.push_back({Action::Remove, derOf(present), nullptr,
                                    "removed from " + storeName + ": " + describe(gone)});
        }
    }
    for (size_t i = 0; i < wanted.size(); ++i) {
        if (!found[i])
            out->changes.push_back({Action::Add, wanted[i].der, &wanted[i],
                                    "added to " + storeName + ": " + describe(wanted[i])});
    }
    return true;
}

bool apply(const std::string& storeName, const StorePlan& plan, bool personal, PassResult* result) {
    if (plan.changes.empty())
        return true;
    Store store = openStore(storeName, true);
    if (!store) {
        result->error = "the store " + storeName + " cannot be opened for writing (error " +
                        std::to_string(GetLastError()) + ")";
        return false;
    }
    for (const Change& change : plan.changes) {
        if (change.action != Action::Add && !removeMarked(store.get(), change.der)) {
            result->error = "cannot remove a certificate from " + storeName + " (error " +
                            std::to_string(GetLastError()) + ")";
            return false;
        }
        if (change.action != Action::Remove && !add(store.get(), *change.wanted, personal)) {
            result->error = "cannot add " + change.wanted->subject + " to " + storeName + " (error " +
                            std::to_string(GetLastError()) + ")";
            return false;
        }
        result->lines.push_back(change.line);
        if (change.action == Action::Add)
            ++result->added;
        else if (change.action == Action::Remove)
            ++result->removed;
        else
            ++result->updated;
    }
    result->wroteStore = true;
    // Wine's system stores keep a removal only through an explicit commit (closing alone keeps
    // additions); on Windows the commit is what closing does anyway.
    if (!CertControlStore(store.get(), 0, CERT_STORE_CTRL_COMMIT, nullptr)) {
        result->error =
            "cannot save the store " + storeName + " (error " + std::to_string(GetLastError()) + ")";
        return false;
    }
    return true;
}

PassResult reconcile(const CertificatePlan& plan, const StoreNames& names) {
    PassResult result;
    StorePlan personal;
    StorePlan authorities;
    if (!compare(names.personal, plan.personal, plan.heldSerials, true, &personal, &result.error) ||
        !compare(names.authorities, plan.authorities, plan.heldSerials, false, &authorities, &result.error))
        return result;
    if (!apply(names.personal, personal, true, &result) ||
        !apply(names.authorities, authorities, false, &result))
        return result;
    for (const StorePlan* store : {&personal, &authorities}) {
        for (const std::string& line : store->keptLines) {
            result.lines.push_back(line);
            ++result.kept;
        }
    }
    return result;
}

}  // namespace

KeyProviderInfo keyProviderInfo(PCCERT_CONTEXT certificate) {
    KeyProviderInfo out;
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size) ||
        size == 0)
        return out;
    std::vector<unsigned char> buffer(size);
    if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size))
        return out;
    const auto* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buffer.data());
    out.container = narrow(info->pwszContainerName);
    out.provider = narrow(info->pwszProvName);
    out.providerType = info->dwProvType;
    out.keySpec = info->dwKeySpec;
    out.present = true;
    return out;
}

bool carriesKeyProviderOf(PCCERT_CONTEXT certificate, const WantedCertificate& wanted) {
    KeyProviderInfo info = keyProviderInfo(certificate);
    return info.present && info.container == wanted.keyId && info.provider == kProviderName &&
           info.providerType == wanted.providerType && info.keySpec == wanted.keySpec;
}

PassResult applyPlan(const CertificatePlan& plan, const StoreNames& names) {
    PassResult result = reconcile(plan, names);
    for (const std::string& line : result.lines)
        logDebug("calyth-agent: " + line);
    if (!result.error.empty())
        logError("calyth-agent: " + result.error);
    return result;
}

PassResult removeAll(const StoreNames& names) {
    return applyPlan(CertificatePlan{}, names);
}

std::set<std::string> markedSerials(const StoreNames& names) {
    std::set<std::string> serials;
    Store store = openStore(names.personal, false);
    PCCERT_CONTEXT present = nullptr;
    while (store && (present = CertEnumCertificatesInStore(store.get(), present)) != nullptr) {
        std::string mark = markOf(present);
        if (!mark.empty())
            serials.insert(mark);
    }
    return serials;
}

PCCERT_CONTEXT findInPersonalStore(const WantedCertificate& wanted, const StoreNames& names) {
    Store store = openStore(names.personal, false);
    PCCERT_CONTEXT present = nullptr;
    while (store && (present = CertEnumCertificatesInStore(store.get(), present)) != nullptr) {
        if (sameBytes(present, wanted.der))
            return CertDuplicateCertificateContext(present);
    }
    return nullptr;
}

}  // namespace agent
