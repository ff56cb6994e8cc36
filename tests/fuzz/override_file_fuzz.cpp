// The version override file named on the command line, read from the workspace: a value it sets
// is one trimmed line's text after "=", and only the keys the tool knows set anything.
#include "app/app.h"
#include "fake_platform.h"
#include "fuzz_check.h"

static void CheckValue(const std::wstring& value, std::string_view file, std::string_view key) {
    FUZZ_CHECK(value.empty() ||
               (file.find(key) != file.npos && value.find_first_of(L"\n=") == value.npos &&
                value.front() != L' ' && value.back() != L' '));
}

FUZZ_TARGET {
    const std::wstring workspace = L"C:\\ProgramData\\Quorvane\\Workspace";
    fake::Reset();
    fake::State().folders.insert(workspace);
    fake::State().files[workspace + L"\\versions.txt"] = fuzz::Bytes(data, data + size);
    App app;
    app.workspace = workspace;
    app.overrideFile = L"versions.txt";
    app.ParseOverrideFile();
    CheckValue(app.version, fuzz::Text(data, size), "Orel.version=");
    CheckValue(app.filename, fuzz::Text(data, size), "Orel.filename=");
    // Reading the file changes nothing else about the run.
    FUZZ_CHECK(!app.force && !app.test && app.options.empty() && app.agents.empty());
}
