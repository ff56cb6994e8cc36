#include "state/policy_config.h"

#include <optional>
#include <vector>

#include "test_support.h"

namespace {

using CORE::LegacyPolicyPath;
using CORE::ReadWithLegacyFallback;

// ---- Path mapping ----

class LegacyPolicyPathTest
    : public ::testing::TestWithParam<std::pair<const wchar_t*, const wchar_t*>> {};

TEST_P(LegacyPolicyPathTest, MapsCurrentKeysToTheFormerPolicyKeys) {
    EXPECT_EQ(LegacyPolicyPath(GetParam().first), GetParam().second) << GetParam().first;
}

INSTANTIATE_TEST_SUITE_P(
    Paths, LegacyPolicyPathTest,
    ::testing::Values(
        std::pair{L"Software\\Other Vendor\\Lumenar\\Agent", L""},
        std::pair{L"Software\\Quorvane\\Lumenar", L"Software\\Policies\\Tessix, Inc.\\Tessix KDX"},
        std::pair{L"software\\QUORVANE\\lumenar\\",
                  L"Software\\Policies\\Tessix, Inc.\\Tessix KDX"},
        std::pair{L"Software\\Quorvane\\Lumenar\\Agent",
                  L"Software\\Policies\\Tessix, Inc.\\Tessix KDX\\Agent"},
        // The component is matched in any case; the tail keeps its own.
        std::pair{L"Software\\Quorvane\\Lumenar\\AGENT\\Update\\Sub",
                  L"Software\\Policies\\Tessix, Inc.\\Tessix KDX\\Agent\\Update\\Sub"},
        std::pair{L"Software\\Quorvane\\Lumenar\\Broker\\Update", L""},
        std::pair{L"Software\\Quorvane\\LumenarX\\Agent", L""},
        std::pair{L"Software\\Quorvane", L""}, std::pair{L"", L""}));

TEST(PolicyPath, InsertsPoliciesAfterTheFirstComponent) {
    EXPECT_EQ(CORE::PolicyPath(L"Software\\Quorvane\\Lumenar\\Agent"),
              L"Software\\Policies\\Quorvane\\Lumenar\\Agent");
    EXPECT_EQ(CORE::PolicyPath(L"Software"), L"Software\\Policies");
}

// ---- The FallbackToLegacyGPO switch ----

constexpr const wchar_t* kPolicySwitch =
    L"HKLM\\Software\\Policies\\Quorvane\\Lumenar\\FallbackToLegacyGPO";
constexpr const wchar_t* kPlainSwitch = L"HKLM\\Software\\Quorvane\\Lumenar\\FallbackToLegacyGPO";

struct SwitchCase {
    std::optional<std::wstring> policy;
    std::optional<std::wstring> plain;
    bool enabled;
};

class FallbackSwitchTest : public ToolTest, public ::testing::WithParamInterface<SwitchCase> {};

TEST_P(FallbackSwitchTest, PolicyDecidesThenThePlainKeyThenOn) {
    const SwitchCase& c = GetParam();
    if (c.policy) fake::SetRegistryString(kPolicySwitch, *c.policy);
    if (c.plain) fake::SetRegistryString(kPlainSwitch, *c.plain);
    EXPECT_EQ(CORE::IsFallbackToLegacyGPOEnabled(), c.enabled);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, FallbackSwitchTest,
    ::testing::Values(SwitchCase{std::nullopt, std::nullopt, true},
                      SwitchCase{L"0", L"true", false}, SwitchCase{L"false", L"true", false},
                      SwitchCase{L"", L"false", false}, SwitchCase{L"", std::nullopt, true},
                      SwitchCase{std::nullopt, L"0", false}, SwitchCase{L"Yes", L"0", true},
                      SwitchCase{L"ON", std::nullopt, true}, SwitchCase{L"1", L"false", true}));

// ---- Lookup order ----

// Every place a value can come from, in the order the reader tries them.
enum Place { kUserPolicy, kUserLegacy, kMachinePolicy, kMachineLegacy, kUserPlain, kMachinePlain };

std::wstring PlacePath(Place place) {
    static const wchar_t* const kPaths[] = {
        L"HKCU\\Software\\Policies\\Quorvane\\Lumenar\\Agent\\Update\\Setting",
        L"HKCU\\Software\\Policies\\Tessix, Inc.\\Tessix KDX\\Agent\\Update\\Setting",
        L"HKLM\\Software\\Policies\\Quorvane\\Lumenar\\Agent\\Update\\Setting",
        L"HKLM\\Software\\Policies\\Tessix, Inc.\\Tessix KDX\\Agent\\Update\\Setting",
        L"HKCU\\Software\\Quorvane\\Lumenar\\Agent\\Update\\Setting",
        L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\Update\\Setting"};
    return kPaths[place];
}

struct OrderCase {
    const wchar_t* root;
    std::vector<Place> present;  // each holds its own path as text
    Place expected;
};

class LookupOrderTest : public ToolTest, public ::testing::WithParamInterface<OrderCase> {};

TEST_P(LookupOrderTest, TakesTheFirstPlaceThatHasTheValue) {
    const OrderCase& c = GetParam();
    for (Place place : c.present) fake::SetRegistryString(PlacePath(place), PlacePath(place));
    std::wstring value, place;
    const std::wstring path =
        std::wstring(c.root) + L"\\Software\\Quorvane\\Lumenar\\Agent\\Update\\Setting";
    ASSERT_EQ(ReadWithLegacyFallback(path, value, false, &place), 0u);
    EXPECT_EQ(value, PlacePath(c.expected));
    EXPECT_EQ(place, PlacePath(c.expected));
}

INSTANTIATE_TEST_SUITE_P(
    Places, LookupOrderTest,
    ::testing::Values(
        OrderCase{L"HKLM", {kMachinePolicy, kMachineLegacy, kMachinePlain}, kMachinePolicy},
        OrderCase{L"HKLM", {kMachineLegacy, kMachinePlain}, kMachineLegacy},
        OrderCase{L"hklm", {kMachinePlain, kUserPolicy}, kMachinePlain},
        OrderCase{
            L"HKCU",
            {kUserPolicy, kUserLegacy, kMachinePolicy, kMachineLegacy, kUserPlain, kMachinePlain},
            kUserPolicy},
        OrderCase{L"HKCU",
                  {kUserLegacy, kMachinePolicy, kMachineLegacy, kUserPlain, kMachinePlain},
                  kUserLegacy},
        OrderCase{
            L"HKCU", {kMachinePolicy, kMachineLegacy, kUserPlain, kMachinePlain}, kMachinePolicy},
        OrderCase{L"HKCU", {kMachineLegacy, kUserPlain, kMachinePlain}, kMachineLegacy},
        OrderCase{L"HKCU", {kUserPlain, kMachinePlain}, kUserPlain},
        OrderCase{L"HKCU", {kMachinePlain}, kMachinePlain}));

class PolicyReadTest : public ToolTest {};

TEST_F(PolicyReadTest, SwitchedOffFallbackSkipsEveryLegacyPolicyKey) {
    fake::SetRegistryString(kPolicySwitch, L"0");
    for (Place place : {kUserLegacy, kMachineLegacy, kMachinePlain})
        fake::SetRegistryString(PlacePath(place), PlacePath(place));
    for (const wchar_t* root : {L"HKLM", L"HKCU"}) {
        std::wstring value;
        ReadWithLegacyFallback(
            std::wstring(root) + L"\\Software\\Quorvane\\Lumenar\\Agent\\Update\\Setting", value);
        EXPECT_EQ(value, PlacePath(kMachinePlain)) << root;
    }
}

TEST_F(PolicyReadTest, ValuesAreReadAsTextAndNonTextDoesNotHideTheNextPlace) {
    fake::SetRegistryValue(PlacePath(kMachinePolicy), {platform::regtype::kBinary, {1, 2}});
    fake::SetRegistryDword(PlacePath(kMachinePlain), 0x1E);
    EXPECT_EQ(CORE::ReadStringWithLegacyFallback(PlacePath(kMachinePlain), L"d"), L"30");
}

TEST_F(PolicyReadTest, MissingValueEmptiesTheBufferAndSetsTheLastStatus) {
    std::wstring value = L"stale", place = L"stale";
    EXPECT_EQ(ReadWithLegacyFallback(PlacePath(kMachinePlain), value, false, &place), 2u);
    EXPECT_EQ(Platform().lastError, 2u);
    EXPECT_EQ(value, L"");
    EXPECT_EQ(place, L"");
    EXPECT_EQ(CORE::ReadStringWithLegacyFallback(PlacePath(kMachinePlain), L"dflt"), L"dflt");

    // The status is the last place's: here the plain key refuses access.
    Platform().deniedKeys.insert(L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\Update");
    EXPECT_EQ(ReadWithLegacyFallback(PlacePath(kMachinePlain), value), 5u);
    EXPECT_EQ(Platform().lastError, 5u);

    EXPECT_EQ(ReadWithLegacyFallback(L"HKEY_LOCAL_MACHINE\\Software\\X\\V", value), 3u);
    EXPECT_EQ(Platform().lastError, 3u);
}

}  // namespace
