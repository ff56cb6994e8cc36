// The registry adapter against the real (Wine) registry, with HKEY_LOCAL_MACHINE redirected.
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/registry.h"
#include "state/registry.h"
#include "win32_support.h"

namespace {

using namespace platform;

class RegistryAdapterTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(override_.valid()); }
    static std::uint32_t Query(const std::wstring& key, const std::wstring& name, RegistryValue& out) {
        return RegistryQueryValue(Hive::LocalMachine, key, name, false, out);
    }
    HklmOverride override_;
};

// Every type comes back with the bytes written; one larger than the first buffer comes back whole.
TEST_F(RegistryAdapterTest, RoundTripsRawValuesOfEveryType) {
    const std::vector<RegistryValue> values{
        {regtype::kSz, core::Utf16BytesFromWide(L"text", true)},
        {regtype::kSz, core::Utf16BytesFromWide(std::wstring(300000, L'x'), true)},
        {regtype::kMultiSz, core::Utf16BytesFromWide(std::wstring(L"a\0b\0", 4), true)},
        {regtype::kDword, {0x1E, 0, 0, 0}},
        {regtype::kQword, {1, 2, 3, 4, 5, 6, 7, 8}},
        {regtype::kBinary, {}},
    };
    for (std::size_t i = 0; i < values.size(); ++i) {
        SCOPED_TRACE(i);
        const std::wstring name = L"v" + std::to_wstring(i);
        ASSERT_EQ(RegistrySetValue(Hive::LocalMachine, L"Software\\T", name, values[i], false, false), 0u);
        RegistryValue read;
        ASSERT_EQ(Query(L"Software\\T", name, read), 0u);
        EXPECT_EQ(read.type, values[i].type);
        EXPECT_EQ(read.data, values[i].data);
    }
    RegistryValue missing;
    EXPECT_EQ(Query(L"Software\\T", L"none", missing), 2u);
    EXPECT_EQ(Query(L"Software\\None", L"v", missing), 2u);
}

// The restart marker's key is volatile, and only a volatile key makes the system refuse a
// non-volatile child; the keys it creates above itself stay non-volatile (a legacy upgrade may
// find no current product key).
TEST_F(RegistryAdapterTest, VolatileKeysRefuseNonVolatileChildrenButNotTheirParents) {
    ASSERT_TRUE(RegWriteVolatileString(L"HKLM\\Software\\Root\\Volatile\\NeedReboot", L"1"));
    EXPECT_EQ(RegReadString(L"HKLM\\Software\\Root\\Volatile\\NeedReboot"), L"1");
    EXPECT_FALSE(RegWriteValue(L"HKLM\\Software\\Root\\Volatile\\Child\\X", L"1", regtype::kSz));
    EXPECT_TRUE(RegWriteValue(L"HKLM\\Software\\Root\\Plain\\Child\\X", L"1", regtype::kSz));
}

TEST_F(RegistryAdapterTest, EnumeratesDeletesAndOpens) {
    for (const wchar_t* id : {L"{B}", L"{A}"})
        ASSERT_TRUE(RegWriteValue(std::wstring(L"HKLM\\Software\\U\\") + id + L"\\STATE", L"1", regtype::kSz));
    std::vector<std::wstring> names;
    ASSERT_EQ(RegistryEnumSubkeys(Hive::LocalMachine, L"Software\\U", false, names), 0u);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::wstring>{L"{A}", L"{B}"}));
    std::vector<NamedRegistryValue> values;
    ASSERT_EQ(RegistryEnumValues(Hive::LocalMachine, L"Software\\U\\{A}", false, values), 0u);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].first, L"STATE");
    EXPECT_EQ(values[0].second.data, core::Utf16BytesFromWide(L"1", true));
    EXPECT_EQ(RegistryEnumSubkeys(Hive::LocalMachine, L"Software\\None", false, names), 2u);

    // A missing key and a missing value are told apart.
    bool opened = true;
    EXPECT_EQ(RegistryDeleteValue(Hive::LocalMachine, L"Software\\None", L"v", false, opened), 2u);
    EXPECT_FALSE(opened);
    EXPECT_EQ(RegistryDeleteValue(Hive::LocalMachine, L"Software\\U\\{A}", L"STATE", false, opened), 0u);
    EXPECT_EQ(RegistryDeleteValue(Hive::LocalMachine, L"Software\\U\\{A}", L"STATE", false, opened), 2u);
    EXPECT_TRUE(opened);

    // HKCU is the user's own hive; HKLM stays redirected for the read-only open too.
    EXPECT_EQ(RegistryOpenKey(Hive::CurrentUser, L"Software\\UpdatetoolTests", false), 0u);
    EXPECT_EQ(RegistryOpenKey(Hive::LocalMachine, L"Software\\UpdatetoolTests", false), 2u);
    EXPECT_EQ(RegistryOpenKeyForRead(Hive::LocalMachine, L"Software\\U\\{B}"), 0u);
    EXPECT_EQ(RegistryOpenKeyForRead(Hive::LocalMachine, L"Software\\None"), 2u);
}

}  // namespace
