// The doctor's report: one verdict per check, in the order the checks ran, printed as text for a
// person or as JSON for a support ticket.
#pragma once

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

namespace doctor {

enum class Verdict { Ok, Warn, Fail, Skip };

struct Check {
    std::string name;  // what was checked, e.g. "CryptoAPI registration (64-bit)"
    Verdict verdict = Verdict::Ok;
    std::string detail;              // the one-line finding
    std::vector<std::string> facts;  // further lines under it (files, keys, chain)
    std::string remedy;              // what to do about a warning or a failure
};

using Report = std::vector<Check>;

Check makeCheck(const std::string& name, Verdict verdict, const std::string& detail,
                const std::string& remedy = "");

void printText(const Report& report, FILE* out);
void printJson(const Report& report, FILE* out);

// 1 when any check failed, else 0.
int exitCode(const Report& report);

// "0x80090016 (Keyset does not exist)": the code with the system's text for it, when it has one.
std::string describeError(DWORD code);

}  // namespace doctor
