#include "report.h"

#include "calyth_version.h"

namespace doctor {
namespace {

const char* verdictTag(Verdict verdict) {
    switch (verdict) {
        case Verdict::Ok:
            return "[ ok ]";
        case Verdict::Warn:
            return "[warn]";
        case Verdict::Fail:
            return "[FAIL]";
        default:
            return "[skip]";
    }
}

const char* verdictWord(Verdict verdict) {
    switch (verdict) {
        case Verdict::Ok:
            return "ok";
        case Verdict::Warn:
            return "warning";
        case Verdict::Fail:
            return "failed";
        default:
            return "skipped";
    }
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            (void)std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

size_t countOf(const Report& report, Verdict verdict) {
    size_t count = 0;
    for (const Check& check : report)
        count += check.verdict == verdict ? 1 : 0;
    return count;
}

}  // namespace

Check makeCheck(const std::string& name, Verdict verdict, const std::string& detail,
                const std::string& remedy) {
    Check check;
    check.name = name;
    check.verdict = verdict;
    check.detail = detail;
    check.remedy = remedy;
    return check;
}

void printText(const Report& report, FILE* out) {
    (void)std::fprintf(out, "calyth-doctor %s: Calyth Cryptographic Provider CSP on this machine\n\n",
                       CALYTH_VERSION_TEXT);
    for (const Check& check : report) {
        (void)std::fprintf(out, "%s %s: %s\n", verdictTag(check.verdict), check.name.c_str(),
                           check.detail.c_str());
        for (const std::string& fact : check.facts)
            (void)std::fprintf(out, "         %s\n", fact.c_str());
        if (!check.remedy.empty() && (check.verdict == Verdict::Fail || check.verdict == Verdict::Warn))
            (void)std::fprintf(out, "         what to do: %s\n", check.remedy.c_str());
    }
    (void)std::fprintf(out, "\n%zu checks: %zu ok, %zu warn, %zu failed, %zu skipped\n", report.size(),
                       countOf(report, Verdict::Ok), countOf(report, Verdict::Warn),
                       countOf(report, Verdict::Fail), countOf(report, Verdict::Skip));
}

void printJson(const Report& report, FILE* out) {
    (void)std::fprintf(out, "{\n  \"tool\": \"calyth-doctor\",\n  \"version\": %s,\n  \"checks\": [",
                       jsonString(CALYTH_VERSION_TEXT).c_str());
    for (size_t i = 0; i < report.size(); ++i) {
        const Check& check = report[i];
        (void)std::fprintf(out, "%s\n    {\"check\": %s, \"verdict\": %s, \"detail\": %s, \"facts\": [",
                           i ? "," : "", jsonString(check.name).c_str(),
                           jsonString(verdictWord(check.verdict)).c_str(), jsonString(check.detail).c_str());
        for (size_t f = 0; f < check.facts.size(); ++f)
            (void)std::fprintf(out, "%s%s", f ? ", " : "", jsonString(check.facts[f]).c_str());
        (void)std::fprintf(out, "], \"remedy\": %s}", jsonString(check.remedy).c_str());
    }
    (void)std::fprintf(out, "\n  ],\n  \"failed\": %zu,\n  \"warnings\": %zu\n}\n",
                       countOf(report, Verdict::Fail), countOf(report, Verdict::Warn));
}

int exitCode(const Report& report) {
    return countOf(report, Verdict::Fail) ? 1 : 0;
}

std::string describeError(DWORD code) {
    char hex[16];
    (void)std::snprintf(hex, sizeof hex, "0x%08lX", static_cast<unsigned long>(code));
    char text[512] = {};
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                                  0, text, sizeof text, nullptr);
    while (length && (text[length - 1] == '\n' || text[length - 1] == '\r' || text[length - 1] == ' ' ||
                      text[length - 1] == '.'))
        text[--length] = '\0';
    return length ? std::string(hex) + " (" + text + ")" : std::string(hex);
}

}  // namespace doctor
