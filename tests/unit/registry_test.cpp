#include "state/registry.h"

#include "test_support.h"

namespace {

using platform::Hive;
namespace regtype = platform::regtype;

struct SplitCase {
    const wchar_t* path;
    std::optional<Hive> hive;
    const wchar_t* key;
    const wchar_t* value;
};

class SplitRegistryPathTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitRegistryPathTest, SplitsRootKeyAndValue) {
    const SplitCase& c = GetParam();
    const RegistryPath parts = SplitRegistryPath(c.path);
    EXPECT_EQ(parts.hive, c.hive);
    if (c.hive) {
        EXPECT_EQ(parts.key, c.key);
        EXPECT_EQ(parts.value, c.value);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Paths, SplitRegistryPathTest,
    ::testing::Values(
        SplitCase{L"HKLM\\Software\\X\\Value", Hive::LocalMachine, L"Software\\X", L"Value"},
        SplitCase{L"hklm\\Software\\X\\Value", Hive::LocalMachine, L"Software\\X", L"Value"},
        SplitCase{L"HKCU\\A\\B", Hive::CurrentUser, L"A", L"B"},
        SplitCase{L"HKCR\\A\\B", Hive::ClassesRoot, L"A", L"B"},
        SplitCase{L"HKCC\\A\\B", Hive::CurrentConfig, L"A", L"B"},
        SplitCase{L"HKU\\A\\B", Hive::Users, L"A", L"B"},
        // The last backslash right after the root: empty key path.
        SplitCase{L"HKLM\\Value", Hive::LocalMachine, L"", L"Value"},
        // Trailing backslash: the key's default value.
        SplitCase{L"HKLM\\Software\\X\\", Hive::LocalMachine, L"Software\\X", L""},
        SplitCase{L"HKEY_LOCAL_MACHINE\\Software\\X\\Value", std::nullopt, L"", L""},
        SplitCase{L"HKLMX\\Software\\Value", std::nullopt, L"", L""},
        SplitCase{L"", std::nullopt, L"", L""},
        SplitCase{L"HKLM", std::nullopt, L"", L""}));

class ParseBoolTextTest : public ::testing::TestWithParam<std::pair<const wchar_t*, bool>> {};

TEST_P(ParseBoolTextTest, FollowsTheFlagRule) {
    EXPECT_EQ(ParseBoolText(GetParam().first), GetParam().second) << GetParam().first;
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseBoolTextTest,
    ::testing::Values(std::pair{L"TRUE", true}, std::pair{L"Yes", true}, std::pair{L"on", true},
                      std::pair{L"1", true}, std::pair{L"2", true}, std::pair{L"-1", true},
                      std::pair{L"99999999999999999999999", true}, std::pair{L"false", false},
                      std::pair{L"0", false}, std::pair{L"000", false}, std::pair{L"", false},
                      std::pair{L"enabled", false}, std::pair{L" 1", false},
                      std::pair{L"1x", false}, std::pair{L"-", false}, std::pair{L"true ", false}));

class RegistryTest : public ToolTest {};

TEST_F(RegistryTest, ConvertsEachTypeToText) {
    fake::SetRegistryDword(L"HKLM\\Software\\X\\Dword", 0x1E);
    fake::SetRegistryDword(L"HKLM\\Software\\X\\Max", 0xFFFFFFFF);
    fake::SetRegistryValue(L"HKLM\\Software\\X\\Qword",
                           {regtype::kQword, {0, 0, 0, 0, 1, 0, 0, 0}});
    fake::SetRegistryValue(L"HKLM\\Software\\X\\Multi",
                           {regtype::kMultiSz, core::Utf16BytesFromWide(std::wstring(L"a\0b\0", 4), true)});
    fake::SetRegistryValue(L"HKLM\\Software\\X\\Expand",
                           {regtype::kExpandSz, core::Utf16BytesFromWide(L"%ROOT%\\logs", true)});
    Platform().environment[L"ROOT"] = L"D:\\data";
    fake::SetRegistryString(L"HKLM\\Software\\X\\Text", L"hello/world");

    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Dword"), L"30");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Max"), L"4294967295");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Qword"), L"4294967296");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Multi"), std::wstring(L"a\0b", 3));
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Expand"), L"D:\\data\\logs");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Text"), L"hello/world");
    EXPECT_EQ(RegReadString(L"hklm\\software\\x\\TEXT"), L"hello/world");
}

TEST_F(RegistryTest, UnreadableValuesGiveTheDefault) {
    fake::SetRegistryString(L"HKLM\\Software\\X\\Value", L"set");
    fake::SetRegistryValue(L"HKLM\\Software\\X\\Short", {regtype::kDword, {1, 2}});
    fake::SetRegistryValue(L"HKLM\\Software\\X\\Binary", {regtype::kBinary, {1, 2, 3}});
    Platform().deniedKeys.insert(L"HKLM\\Software\\Denied");
    fake::SetRegistryString(L"HKLM\\Software\\Denied\\Value", L"secret");

    EXPECT_EQ(RegReadString(L"HKEY_LOCAL_MACHINE\\Software\\X\\Value", L"def"), L"def");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Missing", L"def"), L"def");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\Nope\\Value", L"def"), L"def");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Short", L"def"), L"def");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\X\\Binary", L"def"), L"def");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\Denied\\Value", L"def"), L"def");
}

TEST_F(RegistryTest, ReadValueReportsTypeOrMinusOne) {
    fake::SetRegistryDword(L"HKLM\\Software\\X\\Dword", 7);
    fake::SetRegistryValue(L"HKLM\\Software\\X\\Binary", {regtype::kBinary, {1}});

    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\Dword").type, static_cast<int>(regtype::kDword));
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\Dword").text, L"7");
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\Binary").type, static_cast<int>(regtype::kBinary));
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\Missing").type, -1);
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\Dword", regtype::kSz).type, -1);
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\Dword", regtype::kDword).text, L"7");
}

TEST_F(RegistryTest, WritesIntegersAtTheirWidthAndEverythingElseAsText) {
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\W\\D", L"30", regtype::kDword));
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\W\\Neg", L"-1", regtype::kDword));
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\W\\Q", L"18446744073709551615", regtype::kQword));
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\W\\S", L"DONE", regtype::kSz));
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\W\\M", L"a", regtype::kMultiSz));

    EXPECT_EQ(fake::GetRegistryValue(L"HKLM\\Software\\W\\D")->data,
              (std::vector<std::uint8_t>{30, 0, 0, 0}));
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\W\\Neg"), L"4294967295");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\W\\Q"), L"18446744073709551615");
    EXPECT_EQ(fake::GetRegistryValue(L"HKLM\\Software\\W\\S")->data,
              core::Utf16BytesFromWide(L"DONE", true));
    EXPECT_EQ(fake::GetRegistryValue(L"HKLM\\Software\\W\\M")->type, regtype::kSz);
    EXPECT_FALSE(fake::IsVolatileKey(L"HKLM\\Software\\W"));
}

TEST_F(RegistryTest, RefusesIntegerTextThatDoesNotFit) {
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\W\\D", L"4294967296", regtype::kDword));
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\W\\D", L"-2147483649", regtype::kDword));
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\W\\D", L"12abc", regtype::kDword));
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\W\\D", L"", regtype::kDword));
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\W\\Q", L"18446744073709551616", regtype::kQword));
    EXPECT_FALSE(RegWriteValue(L"HKEY_LOCAL_MACHINE\\Software\\W\\S", L"x", regtype::kSz));
    EXPECT_FALSE(fake::GetRegistryValue(L"HKLM\\Software\\W\\D").has_value());
}

TEST_F(RegistryTest, VolatileWriteCreatesAVolatileKeyUnderNonVolatileParents) {
    ASSERT_TRUE(RegWriteVolatileString(
        L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\UpdateStatusVolatile\\NeedReboot", L"1"));
    EXPECT_TRUE(fake::IsVolatileKey(L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\UpdateStatusVolatile"));
    EXPECT_FALSE(fake::IsVolatileKey(L"HKLM\\Software\\Quorvane\\Lumenar\\Agent"));
    EXPECT_EQ(RegReadString(
                  L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\UpdateStatusVolatile\\NeedReboot"),
              L"1");
}

TEST_F(RegistryTest, The32BitViewIsASeparateKey) {
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\V\\Where", L"32", regtype::kSz, true));
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\V\\Where", L"none"), L"none");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\V\\Where", L"none", true), L"32");
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\WOW6432Node\\V\\Where"), L"32");
}

TEST_F(RegistryTest, EnumeratesInTheSystemsOrderWithoutSorting) {
    fake::CreateRegistryKey(L"HKLM\\Software\\E\\b");
    fake::CreateRegistryKey(L"HKLM\\Software\\E\\a");
    fake::SetRegistryString(L"HKLM\\Software\\E\\Z", L"z");
    fake::SetRegistryDword(L"HKLM\\Software\\E\\y", 5);

    EXPECT_EQ(RegEnumSubkeys(L"HKLM\\Software\\E"), (std::vector<std::wstring>{L"b", L"a"}));
    EXPECT_EQ(RegEnumSubkeys(L"HKLM\\Software\\E\\"), (std::vector<std::wstring>{L"b", L"a"}));
    EXPECT_TRUE(RegEnumSubkeys(L"HKLM\\Software\\Missing").empty());
    EXPECT_TRUE(RegEnumSubkeys(L"BAD\\Software\\E").empty());

    const RegistryValueMap values = RegReadAllValues(L"HKLM\\Software\\E");
    EXPECT_EQ(values.size(), 2u);
    EXPECT_EQ(values.at(L"z"), L"z");  // names without regard to case
    EXPECT_EQ(values.at(L"Y"), L"5");
    EXPECT_TRUE(RegReadAllValues(L"HKLM\\Software\\Missing").empty());
}

TEST_F(RegistryTest, KeyExistsInMachineOrUserNamesTheRoot) {
    fake::CreateRegistryKey(L"HKCU\\Software\\Only\\User");
    EXPECT_EQ(RegKeyExistsInMachineOrUser(Hive::CurrentUser, L"Software\\Only\\User"),
              (std::pair<bool, std::wstring>{true, L"HKCU"}));
    EXPECT_EQ(RegKeyExistsInMachineOrUser(Hive::LocalMachine, L"Software\\Only\\User"),
              (std::pair<bool, std::wstring>{false, L"HKLM"}));
}

TEST_F(RegistryTest, DeleteIfExistsLogsEachOutcome) {
    const std::wstring value = L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\LastInstallError";
    fake::SetRegistryString(value, L"1603");
    EXPECT_TRUE(Util_DeleteRegistryIfExists(value));
    EXPECT_FALSE(fake::GetRegistryValue(value).has_value());
    EXPECT_TRUE(Logged(L"Util_DeleteRegistryIfExists: Deleted registry key - " + value));

    // The key exists, the value does not: already gone, nothing to delete.
    EXPECT_TRUE(Util_DeleteRegistryIfExists(value));

    const std::wstring missing = L"HKLM\\Software\\Nowhere\\Value";
    EXPECT_TRUE(Util_DeleteRegistryIfExists(missing));
    EXPECT_TRUE(Logged(L"Util_DeleteRegistryIfExists: Registry key " + missing +
                       L" doesn't exist, skip deletion"));

    // A key that cannot be opened counts as absent: the system reports no difference here.
    fake::SetRegistryString(L"HKLM\\Software\\Locked\\Value", L"x");
    Platform().deniedKeys.insert(L"HKLM\\Software\\Locked");
    EXPECT_TRUE(Util_DeleteRegistryIfExists(L"HKLM\\Software\\Locked\\Value"));
}

}  // namespace
