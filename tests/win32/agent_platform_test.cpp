// The adapters the agents use besides processes: file search, the installer database and the
// machine's architecture, against the real (Wine) system.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "core/text.h"
#include "platform/file_search.h"
#include "platform/files.h"
#include "platform/installer_database.h"
#include "platform/system_info.h"

namespace {

TEST(SystemInfoAdapter, TheHostIsX64) {
    EXPECT_EQ(platform::NativeProcessorArchitecture(), platform::kProcessorArchitectureAmd64);
}

TEST(FileSearchAdapter, ListsMatchesAndTellsNoMatchFromNoFolder) {
    std::wstring temp;
    platform::GetTempFolder(temp);
    const std::wstring folder =
        core::PathJoin(temp, L"updatetool-search-" + std::to_wstring(::GetCurrentProcessId()));
    ASSERT_TRUE(platform::CreateFolder(folder));
    const std::vector<std::wstring> files{L"Agent-x86_64-8.1.exe", L"Agent-8.0.msi", L"Other.exe"};
    for (const auto& name : files) ASSERT_TRUE(platform::WriteWholeFile(folder + L"\\" + name, {}));

    std::vector<std::wstring> names;
    EXPECT_EQ(platform::FindFiles(folder + L"\\agent*", names), 0u);  // any case
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::wstring>{L"Agent-8.0.msi", L"Agent-x86_64-8.1.exe"}));
    EXPECT_EQ(platform::FindFiles(folder + L"\\Agent-x86_64-9*", names), 2u);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(platform::FindFiles(folder + L"\\missing\\Agent*", names), 3u);

    for (const auto& name : files) platform::DeleteFilePath(folder + L"\\" + name);
    ::RemoveDirectoryW(folder.c_str());
}

TEST(InstallerDatabaseAdapter, UnknownCodesGiveTheInstallerStatus) {
    std::wstring product = L"stale";
    EXPECT_EQ(platform::FirstRelatedProduct(L"{3E1C0A57-0000-4000-8000-1234567890AB}", product),
              static_cast<std::uint32_t>(ERROR_NO_MORE_ITEMS));
    EXPECT_TRUE(product.empty());
    std::wstring version = L"stale";
    EXPECT_EQ(platform::ProductVersionString(L"{3E1C0A57-0000-4000-8000-1234567890AB}", version),
              static_cast<std::uint32_t>(ERROR_UNKNOWN_PRODUCT));
    EXPECT_TRUE(version.empty());
}

}  // namespace
