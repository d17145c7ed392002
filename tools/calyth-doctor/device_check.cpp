#include "checks.h"
#include "files.h"
#include "pe_image.h"

namespace doctor {
namespace {

constexpr const char* kName = "Device library";

}  // namespace

void checkDeviceLibrary(Report* report, const std::string& providerDll, DeviceFunctions* library) {
    // The provider loads the library from its own folder only, never through the loader's search.
    const std::string folder = deviceLibraryFolder(providerDll);
    DWORD error = 0;
    std::vector<std::string> missing;
    if (!loadDeviceFunctions(folder, library, &error, &missing)) {
        Check check =
            makeCheck(kName, Verdict::Fail,
                      error == ERROR_BAD_EXE_FORMAT
                          ? "CalythDSCLibrary.dll is found but is not a 64-bit DLL"
                          : "CalythDSCLibrary.dll is not found beside the provider: " + describeError(error),
                      "install the token maker's device library package (it puts CalythDSCLibrary.dll "
                      "beside CalythCSP.dll in the system folder " +
                          systemFolder() + "); without it the provider does not open");
        check.facts.push_back("looked in " + folder);
        report->push_back(check);
        return;
    }
    Check check = makeCheck(kName, Verdict::Ok, "");
    std::string version = fileVersionText(library->path);
    check.facts.push_back("file: " + library->path + ", " + sizeText(fileSize(library->path)) +
                          (version.empty() ? "" : ", version " + version));
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
