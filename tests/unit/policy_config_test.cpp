#include "state/policy_config.h"

#include <vector>

#include "test_support.h"

namespace {

using CORE::ReadWithLegacyFallback;

TEST(PolicyPathTest, MapsCurrentKeysToThePolicyKeys) {
    const std::wstring old = L"Software\\Policies\\Tessix, Inc.\\Tessix KDX";
    const std::wstring product = L"Software\\Quorvane\\Lumenar";
    const std::pair<std::wstring, std::wstring> rows[] = {
        {L"Software\\Other Vendor\\Lumenar\\Agent", L""}, {product, old},
        {L"software\\QUORVANE\\lumenar\\", old},          {product + L"\\Agent", old + L"\\Agent"},
        {product + L"\\AGENT\\Update\\Sub", old + L"\\Agent\\Update\\Sub"},
        {product + L"\\Broker\\Update", L""},             {product + L"X\\Agent", L""},
        {L"Software\\Quorvane", L""},                     {L"", L""}};
    for (const auto& [path, legacy] : rows) EXPECT_EQ(CORE::LegacyPolicyPath(path), legacy) << path;
    EXPECT_EQ(CORE::PolicyPath(product), L"Software\\Policies\\Quorvane\\Lumenar");
    EXPECT_EQ(CORE::PolicyPath(L"Software"), L"Software\\Policies");
}

// Where a setting can be: the current policy key, the former product's policy key, the plain key;
// each in the user's (u) and the machine's (m) root.
enum Place { uPol, mPol, uOld, mOld, uKey, mKey };
std::wstring PlacePath(Place p) {
    const wchar_t* const kinds[] = {L"Policies\\Quorvane\\Lumenar", L"Policies\\Tessix, Inc.\\Tessix KDX", L"Quorvane\\Lumenar"};
    return std::wstring(p % 2 ? L"HKLM" : L"HKCU") + L"\\Software\\" + kinds[p / 2] +
           L"\\Agent\\Update\\Setting";
}

// The former product's policies count unless FallbackToLegacyGPO says no: its policy value if not
// empty, else its plain value.
TEST(PolicyOrderTest, TakesTheFirstPlaceThatHasTheValue) {
    // The switches: nullptr not set. Each place present holds its own path as text.
    const struct { const wchar_t *root, *policy, *plain; std::vector<Place> has; Place expected; } rows[] = {
        {L"HKLM", nullptr, nullptr, {mPol, mOld, mKey}, mPol}, {L"HKLM", nullptr, nullptr, {mOld, mKey}, mOld},
        {L"hklm", nullptr, nullptr, {mKey, uPol}, mKey},
        {L"HKCU", nullptr, nullptr, {uPol, uOld, mPol, mOld, uKey, mKey}, uPol},
        {L"HKCU", nullptr, nullptr, {uOld, mPol, mOld, uKey, mKey}, uOld},
        {L"HKCU", nullptr, nullptr, {mPol, mOld, uKey, mKey}, mPol},
        {L"HKCU", nullptr, nullptr, {mOld, uKey, mKey}, mOld},
        {L"HKCU", nullptr, nullptr, {uKey, mKey}, uKey}, {L"HKCU", nullptr, nullptr, {mKey}, mKey},
        {L"HKCU", L"0", L"true", {uOld, mOld, mKey}, mKey}, {L"HKLM", L"", L"false", {mOld, mKey}, mKey},
        {L"HKLM", L"", nullptr, {mOld, mKey}, mOld}, {L"HKLM", nullptr, L"0", {mOld, mKey}, mKey},
        {L"HKLM", L"Yes", L"0", {mOld, mKey}, mOld}};
    const std::wstring fallback = L"Quorvane\\Lumenar\\FallbackToLegacyGPO";
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        fake::FakePlatformScope scope;
        if (r.policy) fake::SetRegistryString(L"HKLM\\Software\\Policies\\" + fallback, r.policy);
        if (r.plain) fake::SetRegistryString(L"HKLM\\Software\\" + fallback, r.plain);
        for (Place place : r.has) fake::SetRegistryString(PlacePath(place), PlacePath(place));
        std::wstring value, place;
        const std::wstring path = std::wstring(r.root) + L"\\Software\\Quorvane\\Lumenar\\Agent\\Update\\Setting";
        ASSERT_EQ(ReadWithLegacyFallback(path, value, false, &place), 0u);
        EXPECT_EQ(value, PlacePath(r.expected));
        EXPECT_EQ(place, PlacePath(r.expected));
    }
}

TEST(PolicyOrderTest, NonTextIsSkippedAndAMissingValueLeavesTheLastStatus) {
    fake::FakePlatformScope scope;
    fake::SetRegistryValue(PlacePath(mPol), {platform::regtype::kBinary, {1, 2}});
    fake::SetRegistryDword(PlacePath(mKey), 0x1E);
    EXPECT_EQ(CORE::ReadStringWithLegacyFallback(PlacePath(mKey), L"d"), L"30");

    const std::wstring missing = PlacePath(uKey) + L"2";
    std::wstring value = L"stale", place = L"stale";
    EXPECT_EQ(ReadWithLegacyFallback(missing, value, false, &place), 2u);
    EXPECT_EQ(fake::State().lastError, 2u);
    EXPECT_EQ(value + place, L"");
    EXPECT_EQ(CORE::ReadStringWithLegacyFallback(missing, L"dflt"), L"dflt");
    // The status is the last place's: here the plain key refuses access.
    fake::State().deniedKeys.insert(L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\Update");
    EXPECT_EQ(ReadWithLegacyFallback(PlacePath(mKey), value), 5u);
    EXPECT_EQ(fake::State().lastError, 5u);
    value = L"stale";
    EXPECT_EQ(ReadWithLegacyFallback(L"HKEY_LOCAL_MACHINE\\Software\\X\\V", value), 3u);
    EXPECT_EQ(fake::State().lastError, 3u);
    EXPECT_EQ(value, L"");
}

}  // namespace
