#include "state/registry.h"

#include "test_support.h"

namespace {

using platform::Hive;
namespace regtype = platform::regtype;

TEST(RegistryPathTest, SplitsRootKeyAndValueAndParsesFlags) {
    const struct { const wchar_t* path; std::optional<Hive> hive; const wchar_t* keyAndValue; } rows[] = {
        {L"hklm\\Software\\X\\Value", Hive::LocalMachine, L"Software\\X|Value"},
        {L"HKCU\\A\\B", Hive::CurrentUser, L"A|B"}, {L"HKCR\\A\\B", Hive::ClassesRoot, L"A|B"},
        {L"HKCC\\A\\B", Hive::CurrentConfig, L"A|B"}, {L"HKU\\A\\B", Hive::Users, L"A|B"},
        {L"HKLM\\Value", Hive::LocalMachine, L"|Value"}, {L"HKLM\\A\\B\\", Hive::LocalMachine, L"A\\B|"},
        {L"HKEY_LOCAL_MACHINE\\A\\B", std::nullopt, L""}, {L"HKLMX\\A\\B", std::nullopt, L""},
        {L"HKLM", std::nullopt, L""}};
    for (const auto& r : rows) {
        const RegistryPath parts = SplitRegistryPath(r.path);
        EXPECT_EQ(parts.hive, r.hive) << r.path;
        EXPECT_EQ(r.hive ? parts.key + L"|" + parts.value : L"", r.keyAndValue) << r.path;
    }
    for (const wchar_t* t : {L"TRUE", L"Yes", L"on", L"1", L"2", L"-1", L"99999999999999999999999"})
        EXPECT_TRUE(ParseBoolText(t)) << t;
    for (const wchar_t* t : {L"false", L"000", L"", L"enabled", L" 1", L"1x", L"-", L"true "})
        EXPECT_FALSE(ParseBoolText(t)) << t;
}

using RegistryTest = ToolTest;

TEST_F(RegistryTest, ReadsEachTypeAsTextOrGivesTheDefault) {
    Platform().environment[L"ROOT"] = L"D:\\data";
    const auto sz = [](std::uint32_t type, std::wstring text) {
        return platform::RegistryValue{type, core::Utf16BytesFromWide(text, true)};
    };
    const std::pair<platform::RegistryValue, std::optional<std::wstring>> rows[] = {
        {{regtype::kDword, {0xFF, 0xFF, 0xFF, 0xFF}}, L"4294967295"},
        {{regtype::kQword, {0, 0, 0, 0, 1, 0, 0, 0}}, L"4294967296"},
        {sz(regtype::kMultiSz, std::wstring(L"a\0b\0", 4)), std::wstring(L"a\0b", 3)},
        {sz(regtype::kExpandSz, L"%ROOT%\\logs"), L"D:\\data\\logs"},
        {{regtype::kDword, {1, 2}}, std::nullopt}, {{regtype::kBinary, {1, 2, 3}}, std::nullopt}};
    for (const auto& [raw, text] : rows) {
        SCOPED_TRACE(testing::Message() << "type " << raw.type << ", " << raw.data.size() << " B");
        fake::SetRegistryValue(L"HKLM\\Software\\X\\V", raw);
        EXPECT_EQ(RegReadString(L"hklm\\software\\x\\v", L"def"), text.value_or(L"def"));
        const RegReadResult read = RegReadValue(L"HKLM\\Software\\X\\V");
        EXPECT_EQ(read.type, static_cast<std::int32_t>(raw.type));
        EXPECT_EQ(read.text, text.value_or(L""));
    }
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\V", regtype::kSz).type, -1);
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\V", regtype::kBinary).type, regtype::kBinary);
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\X\\Missing").type, -1);
    Platform().deniedKeys.insert(L"HKLM\\Software\\X");
    for (const wchar_t* path : {L"HKEY_LOCAL_MACHINE\\Software\\X\\V", L"HKLM\\Software\\X\\V", L"HKLM\\Software\\Nope\\V"})
        EXPECT_EQ(RegReadString(path, L"def"), L"def") << path;
}

TEST_F(RegistryTest, WritesIntegersAtTheirWidthAndEverythingElseAsText) {
    // bytes: the size written, 0 when the text is refused
    const struct { const wchar_t* text; std::uint32_t type; std::size_t bytes; const wchar_t* got; } rows[] = {
        {L"-1", regtype::kDword, 4, L"4294967295"}, {L"18446744073709551615", regtype::kQword, 8, L"18446744073709551615"},
        {L"DONE", regtype::kSz, 10, L"DONE"}, {L"a", regtype::kMultiSz, 4, L"a"},
        {L"4294967296", regtype::kDword, 0, L""}, {L"-2147483649", regtype::kDword, 0, L""},
        {L"12abc", regtype::kDword, 0, L""}, {L"", regtype::kDword, 0, L""},
        {L"18446744073709551616", regtype::kQword, 0, L""}};
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << r.text);
        const std::wstring path = L"HKLM\\Software\\W\\" + std::to_wstring(&r - rows);
        EXPECT_EQ(RegWriteValue(path, r.text, r.type), r.bytes != 0);
        const auto stored = fake::GetRegistryValue(path);
        EXPECT_EQ(stored ? stored->data.size() : 0u, r.bytes);
        const std::uint32_t type = r.type == regtype::kMultiSz ? regtype::kSz : r.type;
        EXPECT_TRUE(!stored || stored->type == type);
        EXPECT_EQ(RegReadString(path), r.got);
    }
    EXPECT_FALSE(fake::IsVolatileKey(L"HKLM\\Software\\W"));
    EXPECT_FALSE(RegWriteValue(L"HKEY_LOCAL_MACHINE\\Software\\W\\S", L"x", regtype::kSz));
}

TEST_F(RegistryTest, VolatileKeysAndEnumeration) {
    // Only the last key is volatile: the product key above it keeps its values over a restart.
    const std::wstring agent = L"HKLM\\Software\\Quorvane\\Lumenar\\Agent";
    ASSERT_TRUE(RegWriteVolatileString(agent + L"\\UpdateStatusVolatile\\NeedReboot", L"1"));
    EXPECT_TRUE(fake::IsVolatileKey(agent + L"\\UpdateStatusVolatile"));
    EXPECT_FALSE(fake::IsVolatileKey(agent));
    EXPECT_EQ(RegReadString(agent + L"\\UpdateStatusVolatile\\NeedReboot"), L"1");

    fake::CreateRegistryKey(L"HKLM\\Software\\E\\b");
    fake::CreateRegistryKey(L"HKLM\\Software\\E\\a");
    fake::SetRegistryString(L"HKLM\\Software\\E\\Z", L"z");
    fake::SetRegistryValue(L"HKLM\\Software\\E\\y", {regtype::kBinary, {5}});
    EXPECT_EQ(RegEnumSubkeys(L"HKLM\\Software\\E\\"), (std::vector<std::wstring>{L"b", L"a"}));
    EXPECT_EQ(RegReadAllValues(L"HKLM\\Software\\E"), (RegistryValueMap{{L"y", L""}, {L"Z", L"z"}}));
    EXPECT_EQ(RegReadAllValues(L"HKLM\\Software\\E").count(L"Y"), 1u);
    EXPECT_EQ(RegKeyExistsInMachineOrUser(Hive::CurrentUser, L"Software"), (std::pair<bool, std::wstring>{false, L"HKCU"}));
    EXPECT_EQ(RegKeyExistsInMachineOrUser(Hive::LocalMachine, L"Software\\E"), (std::pair<bool, std::wstring>{true, L"HKLM"}));
}

TEST_F(RegistryTest, DeleteIfExistsLogsEachOutcome) {
    const std::wstring value = L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\LastInstallError";
    fake::SetRegistryString(value, L"1603");
    EXPECT_TRUE(Util_DeleteRegistryIfExists(value));
    EXPECT_FALSE(fake::GetRegistryValue(value).has_value());
    EXPECT_TRUE(LoggedLine(L"Util_DeleteRegistryIfExists: Deleted registry key - " + value));
    EXPECT_TRUE(Util_DeleteRegistryIfExists(value));  // the key stays, the value is gone
    EXPECT_TRUE(LoggedLine(L"Util_DeleteRegistryIfExists: Registry key " + value + L" doesn't exist, skip deletion"));
    // A key that cannot be opened counts as absent: the system reports no difference here.
    fake::SetRegistryString(L"HKLM\\Software\\Locked\\Value", L"x");
    Platform().deniedKeys.insert(L"HKLM\\Software\\Locked");
    EXPECT_TRUE(Util_DeleteRegistryIfExists(L"HKLM\\Software\\Locked\\Value"));
    EXPECT_EQ(Count(L"doesn't exist, skip deletion"), 2u);
}

}  // namespace
