#pragma once
// The download workspace and the certificate file that validates the download server. The
// downloaded package itself is remembered in state/downloaded_package.h.
//
// Registry values read here (REG_SZ; all optional):
//   HKLM\Software\Quorvane\Lumenar\AgentInstallPath             agent install folder
//   HKLM\Software\Tessix, Inc.\Tessix KDX\AgentInstallPath      legacy agent install folder
//   HKLM\Software\Quorvane\DaaS Agent\CertFolder, CertFileName  DaaS agent certificate
//   HKLM\Software\Tessix, Inc.\Tessix DaaS Agent\CertFolder, CertFileName   legacy DaaS agent
#include <string>

#include "state/downloaded_package.h"

// %TEMP%\updatetool-data, created on first use, when the content client is also given the tool
// log's callback (once per computation); "C:\Temp\updatetool-data" when the temp path is
// unusable; the temp folder itself when the subfolder cannot be created. Fixed for the process.
// The subfolder is created for SYSTEM and the Administrators only, and an existing one of theirs
// (or this account's) is given that access too. A file, a link, or a folder another account owns
// in its place is moved aside to updatetool-data.untrusted-<local time> with a log line, and the
// folder is created afresh; when that fails, or something is planted again each time, the
// workspace is empty (the run's set-up then fails).
std::wstring GetWorkspace();

// <AgentInstallPath>\cert\cacert.pem of the current, then the legacy product; otherwise the DaaS
// agent certificate. May be empty.
std::wstring UtilGetPEMFilePath();
std::wstring DaasAgentCertificatePath();

// Forgets the computed workspace and the downloaded file, so tests can compute them again.
void ResetWorkspaceForTesting();
