// The adapters of src/platform/win32 against the real (Wine) system: registry, files and folders,
// the lock file and the mutex, file search, processes, disk, COM probe and installer database.
#include <aclapi.h>
#include <gtest/gtest.h>
#include <objbase.h>
#include <sddl.h>
#include <windows.h>

#include <filesystem>
#include <functional>
#include <set>
#include <tuple>

#include "agent/generic_agent.h"
#include "agent/orel_agent.h"
#include "core/text.h"
#include "platform/clock.h"
#include "platform/disk.h"
#include "platform/file_search.h"
#include "platform/files.h"
#include "platform/installer_database.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/system.h"
#include "platform/system_info.h"
#include "platform/windows_update.h"
#include "state/registry.h"

namespace {

using namespace platform;
constexpr Hive kLm = Hive::LocalMachine;

std::wstring BesideProgram(const wchar_t* name) {
    std::uint32_t error = 0;
    const std::wstring self = ProgramPath(error);
    return self.substr(0, self.rfind(L'\\') + 1) + name;
}

const std::wstring kPid = std::to_wstring(::GetCurrentProcessId());

struct ScratchFolder {
    ScratchFolder() {
        static int count = 0;
        GetTempFolder(path);
        path += L"updatetool-test-" + kPid + L"-" + std::to_wstring(++count);
        ::CreateDirectoryW(path.c_str(), nullptr);
    }
    ~ScratchFolder() {
        std::error_code ignored;  // a file held for the process's life stays behind
        std::filesystem::remove_all(path, ignored);
    }
    std::wstring operator[](const std::wstring& name) const { return path + L"\\" + name; }
    std::wstring path;
};

// HKEY_LOCAL_MACHINE redirected per test to a fresh key under HKEY_CURRENT_USER; not volatile, as a
// volatile key refuses non-volatile children and the tool writes both.
struct RegistryAdapterTest : ::testing::Test {
    RegistryAdapterTest() {
        ::RegCreateKeyExW(HKEY_CURRENT_USER, name_.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                          KEY_ALL_ACCESS, nullptr, &key_, nullptr);
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key_);
    }
    ~RegistryAdapterTest() override {
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        ::RegCloseKey(key_);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, name_.c_str());
    }
    void SetUp() override { ASSERT_NE(key_, nullptr); }
    const std::wstring name_ = L"Software\\UpdatetoolTests\\" + kPid;
    HKEY key_ = nullptr;
};

// The adapter passes any type through: a large value comes back whole and an empty one empty. Text
// that expands beyond the first buffer comes back whole too.
TEST_F(RegistryAdapterTest, RoundTripsRawValuesAndExpandsText) {
    const RegistryValue values[] = {
        {regtype::kSz, core::Utf16BytesFromWide(std::wstring(300000, L'x'), true)},
        {regtype::kBinary, {}},
    };
    for (const RegistryValue& value : values) {
        RegistryValue read;
        ASSERT_EQ(RegistrySetValue(kLm, L"Software\\T", L"v", value, false, false), 0u);
        ASSERT_EQ(RegistryQueryValue(kLm, L"Software\\T", L"v", false, read), 0u);
        EXPECT_EQ(std::tie(read.type, read.data), std::tie(value.type, value.data)) << value.type;
    }
    const std::wstring root(300, L'd');
    ::SetEnvironmentVariableW(L"UPDATETOOL_TEST_ROOT", root.c_str());
    EXPECT_EQ(ExpandEnvironment(L"%UPDATETOOL_TEST_ROOT%\\logs"), root + L"\\logs");
}

// The restart marker's key is volatile and refuses non-volatile children; the keys made above it
// are not (a legacy upgrade may find no current product key).
TEST_F(RegistryAdapterTest, VolatileKeysRefuseNonVolatileChildrenButNotTheirParents) {
    ASSERT_TRUE(RegWriteVolatileString(L"HKLM\\Software\\Root\\Volatile\\NeedReboot", L"1"));
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\Root\\Volatile\\Child\\X", L"1", regtype::kSz));
    EXPECT_TRUE(RegWriteValue(L"HKLM\\Software\\Root\\Plain\\Child\\X", L"1", regtype::kSz));
}

// A missing key and a missing value are told apart. HKCU is the user's own hive; HKLM stays
// redirected for the read-only open too.
TEST_F(RegistryAdapterTest, EnumeratesDeletesAndOpens) {
    for (const wchar_t* path : {L"HKLM\\Software\\U\\{B}\\S", L"HKLM\\Software\\U\\{A}\\S"})
        ASSERT_TRUE(RegWriteValue(path, L"1", regtype::kSz));
    std::vector<std::wstring> names;
    ASSERT_EQ(RegistryEnumSubkeys(kLm, L"Software\\U", false, names), 0u);
    EXPECT_EQ(std::set(names.begin(), names.end()), (std::set<std::wstring>{L"{A}", L"{B}"}));
    std::vector<NamedRegistryValue> values;
    ASSERT_EQ(RegistryEnumValues(kLm, L"Software\\U\\{A}", false, values), 0u);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].first, L"S");
    EXPECT_EQ(values[0].second.data, core::Utf16BytesFromWide(L"1", true));

    bool keyThere = false, keyGone = true;
    RegistryValue value;
    const std::vector<std::uint32_t> errors{
        RegistryDeleteValue(kLm, L"Software\\U\\{A}", L"S", false, keyThere),
        RegistryDeleteValue(kLm, L"Software\\U\\{A}", L"S", false, keyThere),
        RegistryDeleteValue(kLm, L"Software\\None", L"S", false, keyGone),
        RegistryQueryValue(kLm, L"Software\\U\\{B}", L"none", false, value),
        RegistryOpenKey(Hive::CurrentUser, L"Software\\UpdatetoolTests", false),
        RegistryOpenKey(kLm, L"Software\\UpdatetoolTests", false),
        RegistryOpenKeyForRead(kLm, L"Software\\U\\{B}"),
    };
    EXPECT_EQ(errors, (std::vector<std::uint32_t>{0, 2, 2, 2, 0, 2, 0}));
    EXPECT_TRUE(keyThere && !keyGone);
}

// A write replaces the whole file; what stands where the workspace belongs is moved aside whole.
TEST(FilesAdapter, MovePathMovesFilesAndFoldersButReplacesNothing) {
    const ScratchFolder scratch;
    const std::wstring file = scratch[L"planted"], folder = scratch[L"folder"];
    ASSERT_TRUE(WriteWholeFile(file, {1, 2, 3, 4}) && WriteWholeFile(file, {9}));
    ASSERT_TRUE(CreateFolder(folder));
    EXPECT_TRUE(!MovePath(file, folder) && LastError() == 183) << LastError();
    EXPECT_TRUE(MovePath(file, file + L".aside") && MovePath(folder, folder + L".aside"));
    EXPECT_FALSE(PathExists(file) || PathExists(folder));
    EXPECT_EQ(ReadWholeFile(file + L".aside"), (std::vector<std::uint8_t>{9}));
    EXPECT_TRUE(DeleteFilePath(file + L".aside") && !PathExists(file + L".aside"));
}

// Each refusal leaves the system's reason as the last error; the lock file is held, unshared.
TEST(FilesAdapter, RefusalsLeaveTheirError) {
    const ScratchFolder scratch;
    const std::wstring lock = scratch[L"updatetool.lock"];
    ASSERT_TRUE(HoldLockFileForLife(lock));
    const std::pair<std::function<bool()>, std::uint32_t> rows[] = {
        {[&] { return HoldLockFileForLife(lock); }, 32},
        {[&] { return WriteWholeFile(lock, {7}); }, 32},
        {[&] { return DeleteFilePath(lock); }, 32},
        {[&] { return ReadWholeFile(lock).has_value(); }, 32},
        {[&] { return HoldLockFileForLife(scratch[L"missing\\updatetool.lock"]); }, 3},
        {[&] { return CreateFolder(scratch.path); }, 183},
        {[&] { return CreatePrivateFolder(scratch.path); }, 183},
        {[&] { return SecureExistingFolder(scratch[L"missing"]).has_value(); }, 2},
    };
    for (const auto& [refused, error] : rows)  // ~0: it was not refused
        EXPECT_EQ(refused() ? ~0u : LastError(), error);
}

// Wine makes a file's descriptor from its Unix mode and owner, so what shows here is that nobody
// but SYSTEM and this account gets in; the unit tests refuse another account's folder.
TEST(FilesAdapter, PrivateFoldersLetNobodyElseIn) {
    const ScratchFolder scratch;
    const std::wstring created = scratch[L"created"];
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    wchar_t* text = nullptr;  // the DACL as SDDL
    ASSERT_TRUE(CreatePrivateFolder(created) &&
                ::GetNamedSecurityInfoW(created.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION,
                                        nullptr, nullptr, nullptr, nullptr, &descriptor) == 0 &&
                ::ConvertSecurityDescriptorToStringSecurityDescriptorW(
                    descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
    const std::wstring dacl = text;
    ::LocalFree(text);
    ::LocalFree(descriptor);
    EXPECT_NE(dacl.find(L";;;SY)"), std::wstring::npos) << dacl;
    for (const wchar_t* everyone : {L";;;WD)", L";;;BU)", L";;;AU)"})
        EXPECT_EQ(dacl.find(everyone), std::wstring::npos) << dacl;

    // One this account made with default access is ours; a file in its place is reported as such.
    ASSERT_TRUE(::CreateDirectoryW(scratch[L"older"].c_str(), nullptr));
    const auto found = SecureExistingFolder(scratch[L"older"]);
    ASSERT_TRUE(found.has_value()) << LastError();
    EXPECT_TRUE(found->isFolder && !found->isLink && found->secureError == 0);
    EXPECT_TRUE(found->owner.kind == OwnerKind::kThisAccount && !found->owner.account.empty());
    ASSERT_TRUE(WriteWholeFile(scratch[L"file"], {1}));
    EXPECT_FALSE(SecureExistingFolder(scratch[L"file"]).value().isFolder);
}

TEST(SystemAdapter, MutexReportsAnExistingNameAndItsOwner) {
    const std::wstring name = L"Local\\updatetool-test-" + kPid;
    EXPECT_EQ(CreateNamedMutexHeldForLife(name).error, 0u);
    const InstanceMutex existing = CreateNamedMutexHeldForLife(name);
    EXPECT_EQ(existing.error, 183u);
    // Wine 8 reads no owner (a real second run); Windows names this account or the Administrators.
    EXPECT_TRUE(existing.owner.kind != OwnerKind::kOtherAccount &&
                existing.owner.kind != OwnerKind::kSystem);
}

// Matches in any case; no match and no folder are told apart.
TEST(FileSearchAdapter, ListsMatchesAndTellsNoMatchFromNoFolder) {
    const ScratchFolder scratch;
    for (const wchar_t* name : {L"Agent-x86_64-8.1.exe", L"Agent-8.0.msi", L"Other.exe"})
        ASSERT_TRUE(WriteWholeFile(scratch[name], {}));
    std::vector<std::wstring> names;
    EXPECT_EQ(FindFiles(scratch[L"agent*"], names), 0u);
    EXPECT_EQ(std::set(names.begin(), names.end()),
              (std::set<std::wstring>{L"Agent-8.0.msi", L"Agent-x86_64-8.1.exe"}));
    EXPECT_EQ(FindFiles(scratch[L"Agent-x86_64-9*"], names), 2u);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(FindFiles(scratch[L"missing\\Agent*"], names), 3u);
}

// The test installer records its command line and whether it could open the package for writing
// (32: its launcher holds it). The whole exit code comes back. A quoted path with a blank runs that
// program, not one planted where the first word ends. The package is released at the process's end.
TEST(ProcessAdapter, ExitCodesQuotingAndTheHeldFile) {
    const ScratchFolder scratch;
    const std::wstring installer = BesideProgram(L"test_installer.exe"), record = scratch[L"r"],
                       setup = scratch[L"with blank\\setup.exe"], package = scratch[L"p.msi"];
    ASSERT_TRUE(::CreateDirectoryW(scratch[L"with blank"].c_str(), nullptr) &&
                ::CopyFileW(installer.c_str(), setup.c_str(), FALSE));
    ASSERT_TRUE(WriteWholeFile(scratch[L"with.exe"], {'M', 'Z'}) && WriteWholeFile(package, {1}));
    ::SetEnvironmentVariableW(L"TEST_INSTALLER_RECORD", record.c_str());
    ::SetEnvironmentVariableW(L"TEST_INSTALLER_PROBE_WRITE", package.c_str());
    const std::wstring orel = OrelAgent::CommandLine(installer, 1, L"ADDLOCAL=ALL");
    using enum ProcessOutcome;
    const struct {
        std::wstring line, held;
        const wchar_t* code;
        ProcessOutcome outcome;
        std::uint32_t result;  // the exit code, or the error when nothing ran
    } rows[] = {
        {orel, L"", L"3010", kExited, 3010},
        {orel, package, L"-4", kExited, 0xFFFFFFFC},
        {GenericAgent::CommandLine(setup, L"").value(), L"", L"1641", kExited, 1641},
        {setup + L" /s /v /qn", L"", L"0", kCreateFailed, ERROR_BAD_EXE_FORMAT},
        {scratch[L"missing.exe"], L"", L"0", kCreateFailed, ERROR_FILE_NOT_FOUND},
        {orel, scratch[L"missing.msi"], L"0", kHoldFailed, ERROR_FILE_NOT_FOUND},
    };
    std::wstring recorded;
    for (const auto& row : rows) {
        ::SetEnvironmentVariableW(L"TEST_INSTALLER_EXIT_CODE", row.code);
        const ProcessRun run = RunProcessAndWait(row.line, row.held);
        EXPECT_EQ(run.outcome, row.outcome) << row.line;
        const bool exited = row.outcome == kExited;
        EXPECT_EQ(exited ? run.exitCode : run.error, row.result) << row.line;
        if (exited)
            recorded += row.line + L"\nprobe-write: " + (row.held.empty() ? L"0\n" : L"32\n");
        const auto bytes = ReadWholeFile(record).value_or(std::vector<std::uint8_t>{});
        EXPECT_EQ(core::WideFromUtf8(std::string(bytes.begin(), bytes.end())), recorded);
    }
    EXPECT_TRUE(DeleteFilePath(package));
    for (const wchar_t* name : {L"RECORD", L"EXIT_CODE", L"PROBE_WRITE"})
        ::SetEnvironmentVariableW((std::wstring(L"TEST_INSTALLER_") + name).c_str(), nullptr);
}

// S_OK rather than S_FALSE: the thread had no apartment left over.
bool ThreadHasNoApartment() {
    const HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(result)) ::CoUninitialize();
    return result == S_OK;
}

std::tuple<ComResult, ComResult, bool> Busy() {
    const UpdateInstallerBusy a = QueryUpdateInstallerBusy();
    return {a.createResult, a.isBusyResult, a.busy};
}

// Without an apartment the probe says why, in one it answers; the adapters leave COM as it was.
TEST(WindowsUpdateAdapter, AnswersNotBusyInsideAnApartmentOnly) {
    ASSERT_TRUE(ThreadHasNoApartment());
    EXPECT_EQ(Busy(), std::make_tuple(CO_E_NOTINITIALIZED, 0, false));
    ASSERT_FALSE(ComFailed(ComInitializeMultithreaded()));
    EXPECT_EQ(Busy(), std::make_tuple(S_OK, S_OK, false));
    ComUninitialize();
    EXPECT_TRUE(ThreadHasNoApartment());
}

// The temp folder ends in a backslash; both fit the count their call returns.
TEST(DiskAdapter, CurrentAndTempFolderAndTheSpaceOfTheirVolume) {
    for (auto get : {&GetCurrentFolder, &GetTempFolder}) {
        std::wstring folder;
        DiskSpace space;
        const std::uint32_t count = get(folder);
        ASSERT_TRUE(count == folder.size() && count < 260 && folder.find(L":\\") == 1) << folder;
        EXPECT_TRUE(get == &GetCurrentFolder || folder.back() == L'\\') << folder;
        ASSERT_TRUE(QueryDiskSpace(folder, space));
        EXPECT_TRUE(space.totalFreeBytes > 0 && space.totalFreeBytes <= space.totalBytes &&
                    space.freeBytesToCaller <= space.totalBytes);
    }
    DiskSpace space;
    EXPECT_FALSE(QueryDiskSpace(L"C:\\no-such-folder-for-updatetool\\x\\", space) || !LastError());
}

TEST(InstallerDatabaseAdapter, UnknownCodesGiveTheInstallerStatus) {
    const wchar_t* const code = L"{3E1C0A57-0000-4000-8000-1234567890AB}";
    std::wstring product = L"stale", version = L"stale";
    EXPECT_EQ(FirstRelatedProduct(code, product), std::uint32_t{ERROR_NO_MORE_ITEMS});
    EXPECT_EQ(ProductVersionString(code, version), std::uint32_t{ERROR_UNKNOWN_PRODUCT});
    EXPECT_TRUE(product.empty() && version.empty());
}

// The tool's runs under Wine never check its version resource; the test program has none.
TEST(SystemAdapter, SmallQueries) {
    EXPECT_FALSE(ReadFileVersion(BesideProgram(L"win32_tests.exe")).has_value());
    const auto version = ReadFileVersion(BesideProgram(L"updatetool.exe"));
    EXPECT_TRUE(version && version->mostSignificant != 0);
    EXPECT_EQ(NativeProcessorArchitecture(), kProcessorArchitectureAmd64);
    EXPECT_TRUE(RestrictDllSearch());
    EXPECT_GT(UtcSecondsNow(), 1700000000);
}

}  // namespace
