// The process adapter against real child processes: the test installer built beside this program,
// run with the command lines the agents build.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "core/text.h"
#include "platform/process.h"
#include "platform/system.h"
#include "win32_support.h"

namespace {

class ProcessAdapterTest : public ::testing::Test {
protected:
    ProcessAdapterTest() {
        std::uint32_t error = 0;
        const std::wstring self = platform::ProgramPath(error);
        installer_ = self.substr(0, self.rfind(L'\\')) + L"\\test_installer.exe";
        Environment(L"TEST_INSTALLER_RECORD", record_);
    }
    ~ProcessAdapterTest() override {
        for (const wchar_t* name : {L"TEST_INSTALLER_RECORD", L"TEST_INSTALLER_EXIT_CODE",
                                    L"TEST_INSTALLER_PROBE_WRITE"})
            ::SetEnvironmentVariableW(name, nullptr);
    }

    // For the children this process starts.
    static void Environment(const wchar_t* name, const std::wstring& value) {
        ::SetEnvironmentVariableW(name, value.c_str());
    }

    // The lines the installer recorded, each without its line end.
    std::vector<std::wstring> Recorded() {
        const auto bytes = platform::ReadWholeFile(record_);
        if (!bytes) return {};
        std::wstring text = core::WideFromUtf8(std::string(bytes->begin(), bytes->end()));
        if (!text.empty() && text.back() == L'\n') text.pop_back();
        return core::Split(text, L'\n');
    }

    const ScratchFolder scratch_;
    const std::wstring record_ = scratch_[L"record.txt"];
    std::wstring installer_;
};

TEST_F(ProcessAdapterTest, ReturnsTheWholeExitCodeAndRunsTheLineAsGiven) {
    const std::wstring line = OrelAgent::CommandLine(installer_, 1, L"ADDLOCAL=ALL");
    for (const wchar_t* code : {L"3010", L"1603", L"-4", L"0"}) {
        Environment(L"TEST_INSTALLER_EXIT_CODE", code);
        const platform::ProcessRun run = platform::RunProcessAndWait(line);
        ASSERT_EQ(run.outcome, platform::ProcessOutcome::kExited) << run.error;
        EXPECT_EQ(run.exitCode, static_cast<std::uint32_t>(std::stol(code)));
    }
    const auto lines = Recorded();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], line);
}

TEST_F(ProcessAdapterTest, AQuotedPathWithABlankRunsThatProgramNotAPlantedPrefix) {
    ASSERT_TRUE(::CreateDirectoryW(scratch_[L"with blank"].c_str(), nullptr));
    const std::wstring setup = scratch_[L"with blank\\setup.exe"];
    ASSERT_TRUE(::CopyFileW(installer_.c_str(), setup.c_str(), FALSE));
    // What an unquoted line would start first: a program named after the path up to the blank.
    ASSERT_TRUE(platform::WriteWholeFile(scratch_[L"with.exe"], {'M', 'Z', 0, 0}));

    Environment(L"TEST_INSTALLER_EXIT_CODE", L"1641");
    const std::wstring line = GenericAgent::CommandLine(setup, L"").value();
    ASSERT_EQ(line.front(), L'"');
    const platform::ProcessRun run = platform::RunProcessAndWait(line);
    ASSERT_EQ(run.outcome, platform::ProcessOutcome::kExited) << run.error;
    EXPECT_EQ(run.exitCode, 1641u);
    EXPECT_EQ(Recorded(), std::vector<std::wstring>{line});

    // The same line unquoted reaches the planted file first (which is no valid program here).
    const platform::ProcessRun unquoted = platform::RunProcessAndWait(setup + L" /s /v /qn");
    EXPECT_EQ(unquoted.outcome, platform::ProcessOutcome::kCreateFailed);
    EXPECT_EQ(unquoted.error, static_cast<std::uint32_t>(ERROR_BAD_EXE_FORMAT));
    EXPECT_EQ(Recorded().size(), 1u);
    const platform::ProcessRun missing = platform::RunProcessAndWait(scratch_[L"missing\\setup.exe"]);
    EXPECT_EQ(missing.outcome, platform::ProcessOutcome::kCreateFailed);
    EXPECT_TRUE(missing.error == ERROR_FILE_NOT_FOUND || missing.error == ERROR_PATH_NOT_FOUND)
        << missing.error;
}

TEST_F(ProcessAdapterTest, TheHeldFileCannotBeChangedWhileTheProcessRuns) {
    const std::wstring package = scratch_[L"package.msi"];
    ASSERT_TRUE(platform::WriteWholeFile(package, {'p', 'k', 'g'}));
    Environment(L"TEST_INSTALLER_PROBE_WRITE", package);
    const std::wstring line = L"\"" + installer_ + L"\"";

    ASSERT_EQ(platform::RunProcessAndWait(line, package).outcome, platform::ProcessOutcome::kExited);
    ASSERT_EQ(platform::RunProcessAndWait(line).outcome, platform::ProcessOutcome::kExited);
    // Held: the child was refused; not held: it could have rewritten the file.
    EXPECT_EQ(Recorded(), (std::vector<std::wstring>{line, L"probe-write: 32", line, L"probe-write: 0"}));
    // Released once the process has ended.
    EXPECT_TRUE(::DeleteFileW(package.c_str()));

    const platform::ProcessRun missing = platform::RunProcessAndWait(line, package);
    EXPECT_EQ(missing.outcome, platform::ProcessOutcome::kHoldFailed);
    EXPECT_EQ(missing.error, static_cast<std::uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Recorded().size(), 4u);  // nothing started
}

}  // namespace
