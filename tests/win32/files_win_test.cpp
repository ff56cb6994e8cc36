// File, folder, lock and mutex adapters against the real (Wine) system.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "platform/file_search.h"
#include "platform/files.h"
#include "platform/system.h"
#include "win32_support.h"

namespace {

// A write replaces the whole file; what stands where the workspace belongs is moved aside whole.
TEST(FilesAdapter, WritesMovesAndDeletes) {
    const ScratchFolder scratch;
    const std::wstring file = scratch[L"planted"], folder = scratch[L"folder"];
    ASSERT_TRUE(platform::WriteWholeFile(file, {1, 2, 3, 4}));
    ASSERT_TRUE(platform::WriteWholeFile(file, {9}));
    ASSERT_TRUE(platform::CreateFolder(folder));
    EXPECT_TRUE(platform::MovePath(file, file + L".aside"));
    EXPECT_TRUE(platform::MovePath(folder, folder + L".aside"));
    EXPECT_FALSE(platform::PathExists(file) || platform::PathExists(folder));
    EXPECT_EQ(platform::ReadWholeFile(file + L".aside"), (std::vector<std::uint8_t>{9}));
    EXPECT_TRUE(platform::DeleteFilePath(file + L".aside"));
    EXPECT_FALSE(platform::PathExists(file + L".aside"));
}

// Each refusal leaves the system's reason as the last error, which the log and the decisions read.
TEST(FilesAdapter, RefusalsLeaveTheirError) {
    const ScratchFolder scratch;
    const std::wstring file = scratch[L"file"], lock = scratch[L"updatetool.lock"];
    ASSERT_TRUE(platform::WriteWholeFile(file, {1}));
    ASSERT_TRUE(platform::CreateFolder(scratch[L"folder"]));
    ASSERT_TRUE(platform::HoldLockFileForLife(lock));  // held without sharing until the process ends
    const std::pair<std::function<bool()>, std::uint32_t> rows[] = {
        {[&] { return platform::HoldLockFileForLife(lock); }, 32},
        {[&] { return platform::WriteWholeFile(lock, {7}); }, 32},
        {[&] { return platform::DeleteFilePath(lock); }, 32},
        {[&] { return platform::ReadWholeFile(lock).has_value(); }, 32},
        {[&] { return platform::HoldLockFileForLife(scratch[L"missing\\updatetool.lock"]); }, 3},
        {[&] { return platform::CreateFolder(scratch.path()); }, 183},
        {[&] { return platform::CreatePrivateFolder(scratch.path()); }, 183},
        {[&] { return platform::MovePath(file, scratch[L"folder"]); }, 183},  // replaces nothing
        {[&] { return platform::SecureExistingFolder(scratch[L"missing"]).has_value(); }, 2},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(i);
        EXPECT_FALSE(rows[i].first());
        EXPECT_EQ(platform::LastError(), rows[i].second);
    }
}

// The folder's DACL as SDDL text, or why it could not be read.
std::wstring DaclText(const std::wstring& path) {
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                nullptr, &dacl, nullptr, &descriptor) != ERROR_SUCCESS)
        return L"unreadable";
    wchar_t* text = nullptr;
    std::wstring result = L"unconvertible";
    if (::ConvertSecurityDescriptorToStringSecurityDescriptorW(
            descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr)) {
        result = text;
        ::LocalFree(text);
    }
    ::LocalFree(descriptor);
    return result;
}

// Wine keeps no security descriptor of its own for files: it reports one made from the Unix mode,
// with the Unix owner as the folder's owner. So what can be checked here is that nobody but SYSTEM
// and this account gets in; the refusal of another account's folder is covered by the unit tests.
TEST(FilesAdapter, PrivateFoldersLetNobodyElseIn) {
    const ScratchFolder scratch;
    ASSERT_TRUE(platform::CreatePrivateFolder(scratch[L"created"]));
    const std::wstring dacl = DaclText(scratch[L"created"]);
    EXPECT_NE(dacl.find(L";;;SY)"), std::wstring::npos) << dacl;
    for (const wchar_t* everyone : {L";;;WD)", L";;;BU)", L";;;AU)"})
        EXPECT_EQ(dacl.find(everyone), std::wstring::npos) << dacl;

    // One this account made with default access is ours; a file in its place is reported as such.
    ASSERT_TRUE(::CreateDirectoryW(scratch[L"older"].c_str(), nullptr));
    const auto found = platform::SecureExistingFolder(scratch[L"older"]);
    ASSERT_TRUE(found.has_value()) << platform::LastError();
    EXPECT_TRUE(found->isFolder && !found->isLink);
    EXPECT_EQ(found->owner.kind, platform::OwnerKind::kThisAccount);
    EXPECT_FALSE(found->owner.account.empty());
    EXPECT_EQ(found->secureError, 0u);
    ASSERT_TRUE(platform::WriteWholeFile(scratch[L"file"], {1}));
    const auto notFolder = platform::SecureExistingFolder(scratch[L"file"]);
    ASSERT_TRUE(notFolder.has_value());
    EXPECT_FALSE(notFolder->isFolder);
}

TEST(SystemAdapter, MutexTellsItExists) {
    const std::wstring name = TestName(L"Local\\updatetool-test-");
    EXPECT_EQ(platform::CreateNamedMutexHeldForLife(name).error, 0u);
    const platform::InstanceMutex existing = platform::CreateNamedMutexHeldForLife(name);
    EXPECT_EQ(existing.error, 183u);
    // Wine 8 reports no owner for a mutex (unreadable, which counts as a real second run); Windows
    // names this account or, elevated, the Administrators. The unit tests carry the decision.
    EXPECT_NE(existing.owner.kind, platform::OwnerKind::kOtherAccount);
    EXPECT_NE(existing.owner.kind, platform::OwnerKind::kSystem);
}

TEST(FileSearchAdapter, ListsMatchesAndTellsNoMatchFromNoFolder) {
    const ScratchFolder scratch;
    for (const wchar_t* name : {L"Agent-x86_64-8.1.exe", L"Agent-8.0.msi", L"Other.exe"})
        ASSERT_TRUE(platform::WriteWholeFile(scratch[name], {}));
    std::vector<std::wstring> names;
    EXPECT_EQ(platform::FindFiles(scratch[L"agent*"], names), 0u);  // any case
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::wstring>{L"Agent-8.0.msi", L"Agent-x86_64-8.1.exe"}));
    EXPECT_EQ(platform::FindFiles(scratch[L"Agent-x86_64-9*"], names), 2u);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(platform::FindFiles(scratch[L"missing\\Agent*"], names), 3u);
}

}  // namespace
