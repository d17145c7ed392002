#include "checks.h"
#include "files.h"
#include "pe_image.h"

namespace doctor {
namespace {

constexpr const char* kName = "Device library";

std::string whereFound(const std::string& path) {
    std::string folder = folderOf(path);
    if (sameTextIgnoringCase(folder, systemFolder()))
        return "in the system folder, where every application finds it";
    if (sameTextIgnoringCase(folder, programFolder()))
        return "beside calyth-doctor.exe: applications in other folders find it only in the system folder, "
               "beside themselves or on PATH";
    return "on PATH or in the Windows folder";
}

}  // namespace

void checkDeviceLibrary(Report* report, DeviceFunctions* library) {
    DWORD error = 0;
    std::vector<std::string> missing;
    if (!loadDeviceFunctions(library, &error, &missing)) {
        Check check = makeCheck(
            kName, Verdict::Fail,
            error == ERROR_BAD_EXE_FORMAT
                ? "CalythDSCLibrary.dll is found but is not a 64-bit DLL"
                : "CalythDSCLibrary.dll is not found where the loader looks: " + describeError(error),
            "install the token maker's device library package (it puts CalythDSCLibrary.dll "
            "in the system folder " +
                systemFolder() + "); without it the provider does not load at all");
        check.facts.push_back("looked beside calyth-doctor.exe (" + programFolder() + "), in " +
                              systemFolder() + ", the Windows folder and on PATH");
        report->push_back(check);
        return;
    }
    Check check = makeCheck(kName, Verdict::Ok, "");
    std::string version = fileVersionText(library->path);
    check.facts.push_back("file: " + library->path + ", " + sizeText(fileSize(library->path)) +
                          (version.empty() ? "" : ", version " + version));
    check.facts.push_back("found " + whereFound(library->path));
    if (!missing.empty()) {
        std::string names;
        for (const std::string& name : missing)
            names += (names.empty() ? "" : ", ") + name;
        check.verdict = Verdict::Fail;
        check.detail = library->path + " lacks " + std::to_string(missing.size()) + " of the " +
                       std::to_string(kDeviceFunctionCount) + " functions: " + names;
        check.remedy =
            "this is not the device library the provider was built for: install the token maker's "
            "current package";
        report->push_back(check);
        return;
    }
    check.detail = library->path + ", all " + std::to_string(kDeviceFunctionCount) + " functions present";
    report->push_back(check);
}

}  // namespace doctor
