// Small file and folder questions the checks ask.
#pragma once

#include <windows.h>

#include <string>

namespace doctor {

bool fileExists(const std::string& path);
bool folderExists(const std::string& path);
// The file's size in bytes; -1 when it cannot be read.
long long fileSize(const std::string& path);
// "1.2 MB", "340 KB", "12 bytes".
std::string sizeText(long long bytes);
// The folder part of a path, without the trailing separator.
std::string folderOf(const std::string& path);
// The folder of calyth-doctor.exe, the system folder, and the 32-bit system folder ("" on a
// 32-bit Windows).
std::string programFolder();
std::string systemFolder();
std::string systemWow64Folder();
bool sameTextIgnoringCase(const std::string& a, const std::string& b);
// Environment variables such as %SystemRoot% replaced.
std::string expandEnvironment(const std::string& text);
// Today's local date as "YYYY-MM-DD".
std::string todayText();

}  // namespace doctor
