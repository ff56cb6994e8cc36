#pragma once
// The run's application object: what one run carries from step to step. It lives on the stack of
// the entry for the whole run; its members are defined with the steps that use them:
//   app_setup.cpp        set-up, command line, override file, agent selection
//   app_install.cpp      platform, version, update and clean-up steps
//   app_preflight.cpp    the preflight run, handed to the preflight module
//
// Update record: Setup fills it (Util_GetUpdateState) and copies AGENT, VERSION, ARCH, OPTIONS,
// FILENAME into `record`; Update writes installedVersion, updateVersion, and errorCode, errorDesc
// when an installer fails.
#include <memory>
#include <string>
#include <vector>

#include "agent/agent.h"
#include "core/run_result.h"
#include "state/registry.h"
#include "state/update_record.h"

class App {
public:
    std::wstring workspace;     // download workspace; set-up fails when empty
    bool force = false;         // -force: launch even when the versions say no
    bool test = false;          // -test: installers are not really run
    std::wstring overrideFile;  // the positional command-line argument
    std::wstring version;       // override file, then the record's VERSION (main agent)
    std::wstring filename;      // override file, then the record's FILENAME (main agent)
    std::wstring options;       // the record's OPTIONS, appended to installer command lines
    std::wstring arch;          // the record's ARCH
    bool preflight = false;       // OPTIONS holds PREFLIGHTCHECK_ENABLED=1 or =2
    bool legacyWorkflow = false;  // OPTIONS holds PREFLIGHTCHECK_ENABLED=2
    UpdateProperties record;      // "AGENT", "VERSION", "ARCH", "OPTIONS", "FILENAME"
    std::vector<std::unique_ptr<Agent>> agents;  // owned, in creation order
    std::vector<Agent*> updates;                 // the agents that need an update; not owned

    // Set-up and command line.
    bool Setup();
    bool ParseCmdline(const std::wstring& commandLine);
    void ParseOverrideFile();

    // Install path.
    bool CheckPlatform();
    bool CheckVersion();
    RunResult Update();
    void Cleanup();

    // Preflight checks (preflight/preflight_checks.h).
    RunResult performPreflightChecks();
};
