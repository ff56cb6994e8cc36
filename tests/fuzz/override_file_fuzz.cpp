// The version override file named on the command line, read from the workspace. Arbitrary bytes
// as its content: a value it sets is one trimmed line's text after "=", and only the keys the
// tool knows set anything.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "app/app.h"
#include "fake_platform.h"
#include "fuzz_check.h"

namespace {

constexpr const wchar_t* kWorkspace = L"C:\\ProgramData\\Quorvane\\Workspace";

void CheckValue(const std::wstring& value, std::string_view file, std::string_view key) {
    if (value.empty()) return;
    FUZZ_CHECK(file.find(key) != std::string_view::npos);  // only a known key sets a value
    FUZZ_CHECK(value.find(L'\n') == std::wstring::npos && value.find(L'=') == std::wstring::npos);
    FUZZ_CHECK(value.front() != L' ' && value.back() != L' ');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fake::Reset();
    fake::State().folders.insert(kWorkspace);
    fake::State().files[std::wstring(kWorkspace) + L"\\versions.txt"] =
        std::vector<std::uint8_t>(data, data + size);

    App app;
    app.workspace = kWorkspace;
    app.overrideFile = L"versions.txt";
    app.ParseOverrideFile();

    const std::string_view file(reinterpret_cast<const char*>(data), size);
    CheckValue(app.version, file, "Orel.version=");
    CheckValue(app.filename, file, "Orel.filename=");
    // Reading the file changes nothing else about the run.
    FUZZ_CHECK(!app.force && !app.test && app.options.empty() && app.agents.empty());
    FUZZ_CHECK(fake::State().files.size() == 1);
    return 0;
}
