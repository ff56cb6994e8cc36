#pragma once
// The download step: hands the active update's package to the content client library, which
// fetches, checks and stores it in the workspace, and records the outcome in RESULT ("OK",
// "FAILURE" or "INVALID") and ERRORCODE (the library's result name).
//
// Read from the update key: STATE, CERTTYPE ("CERT_PEM", "THUMBPRINT" or "CERT_SYSTEM_CA"),
// METADATA's THUMBPRINT items, URL, PROXY, PACURL, FILESIZE, CHECKSUM, PACKAGEFILENAME,
// RELATIVEFOLDERPATH. FILENAME is set to the package's local path (inside the workspace).
//
// Update record: reads keyId, state, certType, thumbprints, urls, proxies, pacUrl, fileSize,
// checksum, packageFileName, relativeFolderPath; reads and writes fileName, retry; writes result,
// errorCode, errorDesc.
#include <string>

// True only when the update is already UPDATING (the package is there from an earlier run).
// False in every other state, and after a download attempt, successful or not.
bool Util_DoDownload();

// "KESCLIENT_SUCCESS" ... "KESCLIENT_TRANSFER_INVALID_URI_ERROR", "KESCLIENT_MAXCOUNT" for 13.
std::wstring KesClientResultName(int code);
// "KesClientPayloadType::EXE", "::TAR", "::ZIP", else "PayloadType ERR_<n>".
std::wstring KesClientPayloadTypeName(int type);
