// The registry adapter and the helpers above it against the real (Wine) registry.
#include <gtest/gtest.h>

#include "platform/registry.h"
#include "registry_override.h"
#include "state/registry.h"

namespace {

using platform::Hive;
namespace regtype = platform::regtype;

class RegistryAdapterTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(override_.valid()); }
    HklmOverride override_;
};

TEST_F(RegistryAdapterTest, RoundTripsRawValuesOfEveryType) {
    const std::vector<platform::RegistryValue> values{
        {regtype::kSz, core::Utf16BytesFromWide(L"text", true)},
        {regtype::kMultiSz, core::Utf16BytesFromWide(std::wstring(L"a\0b\0", 4), true)},
        {regtype::kDword, {0x1E, 0, 0, 0}},
        {regtype::kQword, {1, 2, 3, 4, 5, 6, 7, 8}},
        {regtype::kBinary, {}},
    };
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::wstring name = L"v" + std::to_wstring(i);
        ASSERT_EQ(platform::RegistrySetValue(Hive::LocalMachine, L"Software\\T", name, values[i],
                                             false, false),
                  0u);
        platform::RegistryValue read;
        ASSERT_EQ(platform::RegistryQueryValue(Hive::LocalMachine, L"Software\\T", name, false, read),
                  0u);
        EXPECT_EQ(read.type, values[i].type);
        EXPECT_EQ(read.data, values[i].data);
    }
    platform::RegistryValue missing;
    EXPECT_EQ(platform::RegistryQueryValue(Hive::LocalMachine, L"Software\\T", L"none", false, missing),
              2u);
    EXPECT_EQ(platform::RegistryQueryValue(Hive::LocalMachine, L"Software\\None", L"v", false, missing),
              2u);
}

TEST_F(RegistryAdapterTest, HelpersConvertRealValuesAndReadLargeOnesWhole) {
    const std::wstring big(300000, L'x');
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\T\\Big", big, regtype::kSz));
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\T\\Big"), big);
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\T\\D", L"30", regtype::kDword));
    platform::RegistryValue multi{regtype::kMultiSz,
                                  core::Utf16BytesFromWide(std::wstring(L"a\0b\0", 4), true)};
    ASSERT_EQ(platform::RegistrySetValue(Hive::LocalMachine, L"Software\\T", L"M", multi, false, false),
              0u);
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\T\\D"), L"30");
    EXPECT_EQ(RegReadString(L"hklm\\Software\\T\\M"), std::wstring(L"a\0b", 3));
    EXPECT_EQ(RegReadString(L"HKEY_LOCAL_MACHINE\\Software\\T\\D", L"def"), L"def");
    EXPECT_EQ(RegReadValue(L"HKLM\\Software\\T\\D").type, static_cast<int>(regtype::kDword));
}

TEST_F(RegistryAdapterTest, VolatileKeysRefuseNonVolatileChildren) {
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\Root\\Keep", L"1", regtype::kSz));
    ASSERT_TRUE(RegWriteVolatileString(L"HKLM\\Software\\Root\\Volatile\\NeedReboot", L"1"));
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\Root\\Volatile\\NeedReboot"), L"1");
    // Only a volatile key makes the system refuse a non-volatile child.
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\Root\\Volatile\\Child\\X", L"1", regtype::kSz));
    EXPECT_TRUE(RegWriteValue(L"HKLM\\Software\\Root\\Plain\\Child\\X", L"1", regtype::kSz));
}

TEST_F(RegistryAdapterTest, RestartMarkerLeavesMissingParentsNonVolatile) {
    // A legacy upgrade may find no current product key: the marker must not make it volatile.
    ASSERT_TRUE(RegWriteVolatileString(
        L"HKLM\\Software\\Fresh\\Agent\\UpdateStatusVolatile\\NeedReboot", L"1"));
    EXPECT_TRUE(RegWriteValue(L"HKLM\\Software\\Fresh\\Agent\\Update\\{A}\\STATE", L"WAIT",
                              regtype::kSz));
}

TEST_F(RegistryAdapterTest, EnumeratesSubkeysAndValues) {
    for (const wchar_t* id : {L"{B}", L"{A}"})
        ASSERT_TRUE(RegWriteValue(std::wstring(L"HKLM\\Software\\U\\") + id + L"\\STATE", L"READY",
                                  regtype::kSz));
    std::vector<std::wstring> names = RegEnumSubkeys(L"HKLM\\Software\\U");
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::wstring>{L"{A}", L"{B}"}));
    const RegistryValueMap values = RegReadAllValues(L"HKLM\\Software\\U\\{A}");
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values.at(L"state"), L"READY");
    EXPECT_TRUE(RegEnumSubkeys(L"HKLM\\Software\\Missing").empty());
}

TEST_F(RegistryAdapterTest, DeleteTellsAMissingKeyFromAMissingValue) {
    bool opened = true;
    EXPECT_EQ(platform::RegistryDeleteValue(Hive::LocalMachine, L"Software\\Gone", L"v", false, opened),
              2u);
    EXPECT_FALSE(opened);
    ASSERT_TRUE(RegWriteValue(L"HKLM\\Software\\Here\\v", L"1", regtype::kSz));
    EXPECT_EQ(platform::RegistryDeleteValue(Hive::LocalMachine, L"Software\\Here", L"v", false, opened),
              0u);
    EXPECT_TRUE(opened);
    EXPECT_EQ(platform::RegistryDeleteValue(Hive::LocalMachine, L"Software\\Here", L"v", false, opened),
              2u);
    EXPECT_TRUE(opened);
    EXPECT_TRUE(Util_DeleteRegistryIfExists(L"HKLM\\Software\\Here\\v"));
}

TEST_F(RegistryAdapterTest, KeyExistsLooksInTheUsersOwnHive) {
    HKEY key = nullptr;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\UpdatetoolTests\\UserOnly", 0, nullptr,
                                REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    ::RegCloseKey(key);
    EXPECT_EQ(RegKeyExistsInMachineOrUser(Hive::CurrentUser, L"Software\\UpdatetoolTests\\UserOnly"),
              (std::pair<bool, std::wstring>{true, L"HKCU"}));
    EXPECT_FALSE(
        RegKeyExistsInMachineOrUser(Hive::LocalMachine, L"Software\\UpdatetoolTests\\UserOnly").first);
    ::RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\UpdatetoolTests\\UserOnly");
}

TEST(RegistryExpand, ExpandsEnvironmentVariables) {
    ::SetEnvironmentVariableW(L"UPDATETOOL_TEST_ROOT", L"D:\\data");
    EXPECT_EQ(platform::ExpandEnvironment(L"%UPDATETOOL_TEST_ROOT%\\logs"), L"D:\\data\\logs");
    EXPECT_EQ(platform::ExpandEnvironment(L"no variables"), L"no variables");
}

}  // namespace
