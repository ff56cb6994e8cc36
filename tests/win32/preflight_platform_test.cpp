// The preflight probes against the real (Wine) system: the Windows Update Agent through COM, the
// current directory and its volume's space, and the key-exists primitive.
#include <gtest/gtest.h>
#include <objbase.h>
#include <windows.h>

#include "platform/disk.h"
#include "platform/registry.h"
#include "platform/system.h"
#include "platform/windows_update.h"
#include "preflight/preflight_checks.h"
#include "registry_override.h"

namespace {

// S_OK rather than S_FALSE: the thread had no apartment left over.
bool ThreadHasNoApartment() {
    const HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(result)) ::CoUninitialize();
    return result == S_OK;
}

TEST(WindowsUpdateAdapter, AnswersNotBusyInsideAnApartment) {
    ASSERT_FALSE(platform::ComFailed(platform::ComInitializeMultithreaded()));
    const platform::UpdateInstallerBusy answer = platform::QueryUpdateInstallerBusy();
    platform::ComUninitialize();
    EXPECT_EQ(answer.createResult, S_OK);
    EXPECT_EQ(answer.isBusyResult, S_OK);
    EXPECT_FALSE(answer.busy);
    EXPECT_TRUE(ThreadHasNoApartment());
}

TEST(WindowsUpdateAdapter, ReportsTheFailureWithoutAnApartment) {
    ASSERT_TRUE(ThreadHasNoApartment());
    const platform::UpdateInstallerBusy answer = platform::QueryUpdateInstallerBusy();
    EXPECT_EQ(answer.createResult, CO_E_NOTINITIALIZED);
    EXPECT_FALSE(answer.busy);
}

TEST(WindowsUpdateAdapter, TheProbeLeavesCOMAsItFoundIt) {
    EXPECT_FALSE(preflight::isWindowsUpdateInProgress());
    EXPECT_FALSE(preflight::isWindowsUpdateInProgress());
    EXPECT_TRUE(ThreadHasNoApartment());
}

TEST(DiskAdapter, CurrentDirectoryAndItsVolume) {
    std::wstring directory;
    const std::uint32_t count = platform::GetCurrentFolder(directory);
    ASSERT_GT(count, 0u);
    ASSERT_LT(count, 260u);
    EXPECT_EQ(directory.size(), count);
    EXPECT_EQ(directory.substr(1, 2), L":\\");

    platform::DiskSpace space;
    ASSERT_TRUE(platform::QueryDiskSpace(directory, space));
    EXPECT_GT(space.totalBytes, 0u);
    EXPECT_LE(space.totalFreeBytes, space.totalBytes);
    EXPECT_LE(space.freeBytesToCaller, space.totalBytes);
    EXPECT_GT(space.totalFreeBytes, 0u);
}

TEST(DiskAdapter, AMissingFolderFailsWithAnError) {
    platform::DiskSpace space;
    EXPECT_FALSE(platform::QueryDiskSpace(L"C:\\no-such-folder-for-updatetool\\x\\", space));
    EXPECT_NE(platform::LastError(), 0u);
}

TEST(RegistryAdapter, KeyOpensForReadUnderThePredefinedRoot) {
    HklmOverride override_;
    ASSERT_TRUE(override_.valid());
    HKEY key = nullptr;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Target", 0, nullptr, 0, KEY_WRITE,
                                nullptr, &key, nullptr),
              ERROR_SUCCESS);
    ::RegCloseKey(key);
    EXPECT_EQ(platform::RegistryOpenKeyForRead(platform::Hive::LocalMachine, L"Software\\Target"),
              0u);
    EXPECT_EQ(platform::RegistryOpenKeyForRead(platform::Hive::LocalMachine, L"Software\\Missing"),
              2u);
    EXPECT_EQ(platform::RegistryOpenKeyForRead(platform::Hive::CurrentUser, L"Software"), 0u);
}

}  // namespace
