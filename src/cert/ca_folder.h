// Where the installation keeps the certificates of the issuing authorities.
#pragma once

#include <string>

// The installation root: CALYTH_HOME when set and not empty, else the first existing of
// "C:/Program Files (x86)/Quorvik Labs/Calyth" and "C:/Program Files/Quorvik Labs/Calyth", else the
// folder of the host executable.
std::string calythInstallationRoot();

// The installation root followed by "\CalythDSC\Certificates".
std::string caCertificateFolder();

// The file name endings looked for in the CA folder, in this order.
extern const char* const kCaFileExtensions[4];
