// The probes of the system against the real (Wine) one: the Windows Update Agent through COM, the
// disk, the installer database, the program itself, text and time.
#include <gtest/gtest.h>
#include <objbase.h>
#include <windows.h>

#include "core/text.h"
#include "platform/clock.h"
#include "platform/disk.h"
#include "platform/files.h"
#include "platform/installer_database.h"
#include "platform/registry.h"
#include "platform/system.h"
#include "platform/system_info.h"
#include "platform/windows_update.h"
#include "preflight/preflight_checks.h"

namespace {

// S_OK rather than S_FALSE: the thread had no apartment left over.
bool ThreadHasNoApartment() {
    const HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(result)) ::CoUninitialize();
    return result == S_OK;
}

// Without an apartment the probe reports why; inside one it answers; the check around it leaves
// COM as it found it.
TEST(WindowsUpdateAdapter, AnswersNotBusyInsideAnApartmentOnly) {
    ASSERT_TRUE(ThreadHasNoApartment());
    const platform::UpdateInstallerBusy outside = platform::QueryUpdateInstallerBusy();
    EXPECT_EQ(outside.createResult, CO_E_NOTINITIALIZED);
    EXPECT_FALSE(outside.busy);

    ASSERT_FALSE(platform::ComFailed(platform::ComInitializeMultithreaded()));
    const platform::UpdateInstallerBusy answer = platform::QueryUpdateInstallerBusy();
    platform::ComUninitialize();
    EXPECT_EQ(answer.createResult, S_OK);
    EXPECT_EQ(answer.isBusyResult, S_OK);
    EXPECT_FALSE(answer.busy);
    EXPECT_TRUE(ThreadHasNoApartment());

    EXPECT_FALSE(preflight::isWindowsUpdateInProgress());
    EXPECT_FALSE(preflight::isWindowsUpdateInProgress());
    EXPECT_TRUE(ThreadHasNoApartment());
}

// The temp folder ends in a backslash; both fit the count their call returns.
TEST(DiskAdapter, CurrentAndTempFolderAndTheSpaceOfTheirVolume) {
    for (auto get : {&platform::GetCurrentFolder, &platform::GetTempFolder}) {
        std::wstring folder;
        const std::uint32_t count = get(folder);
        ASSERT_TRUE(count > 0 && count < 260) << count;
        EXPECT_EQ(folder.size(), count);
        EXPECT_EQ(folder.substr(1, 2), L":\\");
        EXPECT_TRUE(get == &platform::GetCurrentFolder || folder.back() == L'\\') << folder;
        platform::DiskSpace space;
        ASSERT_TRUE(platform::QueryDiskSpace(folder, space));
        EXPECT_GT(space.totalFreeBytes, 0u);
        EXPECT_LE(space.totalFreeBytes, space.totalBytes);
        EXPECT_LE(space.freeBytesToCaller, space.totalBytes);
    }
    platform::DiskSpace space;
    EXPECT_FALSE(platform::QueryDiskSpace(L"C:\\no-such-folder-for-updatetool\\x\\", space));
    EXPECT_NE(platform::LastError(), 0u);
}

TEST(InstallerDatabaseAdapter, UnknownCodesGiveTheInstallerStatus) {
    const wchar_t* const code = L"{3E1C0A57-0000-4000-8000-1234567890AB}";
    std::wstring product = L"stale", version = L"stale";
    EXPECT_EQ(platform::FirstRelatedProduct(code, product), std::uint32_t{ERROR_NO_MORE_ITEMS});
    EXPECT_TRUE(product.empty());
    EXPECT_EQ(platform::ProductVersionString(code, version), std::uint32_t{ERROR_UNKNOWN_PRODUCT});
    EXPECT_TRUE(version.empty());
}

TEST(SystemAdapter, SmallQueries) {
    // The test program has no version resource; the tool beside it has one.
    std::uint32_t error = 1;
    const std::wstring self = platform::ProgramPath(error);
    EXPECT_EQ(core::FileNameOf(self), L"win32_tests.exe");
    EXPECT_FALSE(platform::ReadFileVersion(self).has_value());
    const std::wstring tool = self.substr(0, self.rfind(L'\\')) + L"\\updatetool.exe";
    EXPECT_NE(platform::ReadFileVersion(tool).value_or(platform::FileVersion{}).mostSignificant, 0u);
    EXPECT_EQ(platform::NativeProcessorArchitecture(), platform::kProcessorArchitectureAmd64);
    EXPECT_TRUE(platform::RestrictDllSearch());
    const std::wstring message = platform::SystemMessage(2);
    EXPECT_TRUE(!message.empty() && message.back() != L'\n') << message;
    EXPECT_TRUE(platform::EqualsIgnoreCase(L"64-BitAgent", L"64-bitagent"));
    EXPECT_FALSE(platform::EqualsIgnoreCase(L"OREL", L"OREL "));
    ::SetEnvironmentVariableW(L"UPDATETOOL_TEST_ROOT", L"D:\\data");
    EXPECT_EQ(platform::ExpandEnvironment(L"%UPDATETOOL_TEST_ROOT%\\logs"), L"D:\\data\\logs");
    EXPECT_GT(platform::UtcSecondsNow(), 1700000000);
}

}  // namespace
