// Administrator-defined registry checks and the reboot-pending probe, against the fake registry.
#include "preflight/registry_checks.h"

#include "test_support.h"

namespace {

namespace regtype = platform::regtype;
using Values = std::vector<std::pair<const wchar_t*, const wchar_t*>>;  // nullptr text: unset

const std::wstring kCurrentChecks = CurrentProductRoot() + L"\\Agent\\PreflightChecks\\";
const std::wstring kLegacyChecks = LegacyProductRoot() + L"\\Agent\\PreflightChecks\\";
constexpr const wchar_t* kTarget = L"HKLM\\Software\\Target";

class RegistryChecksTest : public FreshTest {
protected:
    // Starts again from an empty platform and log, with the keys the checks look at.
    void Arrange() {
        Fresh();
        fake::SetRegistryString(L"HKLM\\Software\\Target\\Mode", L"Enabled");
        fake::SetRegistryString(L"HKCU\\Software\\Target\\Mode", L"Enabled");
    }
    // Listed under listRoot, values under valuesRoot (by the trimmed name).
    static void AddCheck(const std::wstring& name, const Values& values, const std::wstring& listRoot = kLegacyChecks,
                         const std::wstring& valuesRoot = kCurrentChecks) {
        fake::CreateRegistryKey(listRoot + name);
        for (const auto& [value, text] : values)
            if (text) fake::SetRegistryString(valuesRoot + core::Trim(name) + L"\\" + value, text);
    }
};

TEST_F(RegistryChecksTest, KeysNeedAnExactRootPrefixAndActionWordsAnyCase) {
    Arrange();
    // HKLM in both forms, and a missing key, are the checks' own rows below.
    fake::CreateRegistryKey(L"HKU\\.DEFAULT\\Software");
    for (const wchar_t* path : {L"HKCU\\Software\\Target", L"HKEY_USERS\\.DEFAULT\\Software"})
        EXPECT_TRUE(preflight::KeyExists(path)) << path;
    for (const wchar_t* path : {L"hklm\\Software\\Target", L"HKEY_Local_Machine\\Software\\Target"})
        EXPECT_FALSE(preflight::KeyExists(path)) << path;

    const std::pair<std::wstring, const wchar_t*> words[] = {  // nullptr: invalid, read as NONE
        {L"reboot", L"REBOOT"}, {L"Error", L"ERROR"}, {L"", L"NONE"}, {L"Restart", nullptr},
        {L"NONE", nullptr}, {L"REBOOT ", nullptr}, {std::wstring(L"reboot\0\0", 8), L"REBOOT"}};
    for (const auto& [word, action] : words) {
        StartLog();
        EXPECT_EQ(preflight::getPreflightCheckAction(word), action ? action : L"NONE") << word;
        EXPECT_EQ(LoggedLine(L"App::getPreflightCheckAction: invalid action [" + word + L"]"), !action);
    }
}

TEST_F(RegistryChecksTest, OneCheckAddsItsAction) {
    const std::wstring run = L"App::performRegistryBasedChecks: ", match = L"App::getValueMatchAction: ";
    const wchar_t *const n = nullptr, *const kMissing = L"HKLM\\Software\\Missing";
    // action: the one added (nullptr: none); line: a whole line the check logs.
    const struct { const wchar_t *path, *present, *name, *expected, *match, *action; std::wstring line; } rows[] = {
        {n, L"ERROR", n, n, n, n, run + L"preflight check, unable to read keypath for check: [Check1], no action"},
        {kMissing, L"ERROR", n, n, n, n, L""},
        {kTarget, L"reboot", n, n, n, L"REBOOT", L""},
        {kTarget, L"Reboot", L"Mode", L"Enabled", L"ERROR", L"REBOOT", L""},  // key present wins
        {kTarget, n, L"Mode", L"ENABLED", L"error", L"ERROR",
         match + L"preflight check [HKLM\\Software\\Target], value matches, adding an action [error] to process"},
        {L"HKEY_LOCAL_MACHINE\\Software\\Target", n, L"Mode", L"enabled", L"REBOOT", L"REBOOT", {}},
        // The long user root exists, but its short form reads nothing.
        {L"HKEY_CURRENT_USER\\Software\\Target", n, L"Mode", L"Enabled", L"REBOOT", L"NONE", L""},
        {kTarget, n, L"Mode", L"Disabled", L"ERROR", L"NONE", L""},
        {kTarget, n, L"Absent", L"", L"ERROR", L"NONE", L""},
        {kTarget, n, L"Mode", L"Enabled", n, L"NONE", match + L"no value match action defined"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        Arrange();
        AddCheck(L"  Check1\t", {{L"KeyPath", r.path}, {L"KeyPresentAction", r.present}, {L"ValueName", r.name},
                                 {L"ExpectedValue", r.expected}, {L"ValueMatchAction", r.match}});
        EXPECT_EQ(preflight::performRegistryBasedChecks(), r.action ? PreflightActionSet{r.action} : PreflightActionSet{});
        EXPECT_TRUE(LoggedLine(run + L"processing preflight check key [Check1]"));
        EXPECT_TRUE(!r.action || LoggedLine(run + L"preflight check [Check1], action [" + r.action + L"] is added"));
        EXPECT_TRUE(r.line.empty() || LoggedLine(r.line));
    }
}

TEST_F(RegistryChecksTest, ListRootFollowsTheUpgradeButValuesComeFromTheCurrentRoot) {
    Arrange();
    const Values reboot{{L"KeyPath", kTarget}, {L"KeyPresentAction", L"REBOOT"}};
    const Values error{{L"KeyPath", kTarget}, {L"KeyPresentAction", L"ERROR"}};
    AddCheck(L"A", error, kLegacyChecks, kLegacyChecks);  // its legacy values are never read
    AddCheck(L"A", reboot, kCurrentChecks, kCurrentChecks);
    AddCheck(L"B", error, kCurrentChecks, kCurrentChecks);
    AddCheck(L"C", reboot, kLegacyChecks, kLegacyChecks);
    EXPECT_EQ(preflight::performRegistryBasedChecks(), PreflightActionSet{L"REBOOT"});
    EXPECT_FALSE(Logged(L"[B]"));
    EXPECT_TRUE(Logged(L"unable to read keypath for check: [C]"));
    StartLog();
    ActiveUpdateRecord().legacyUpgradeDetected = true;
    EXPECT_EQ(preflight::performRegistryBasedChecks(), (PreflightActionSet{L"ERROR", L"REBOOT"}));
    EXPECT_FALSE(Logged(L"[C]"));
}

platform::RegistryValue Utf16(std::wstring_view text, std::uint32_t type = regtype::kSz) {
    return {type, core::Utf16BytesFromWide(text, false)};
}

TEST(CheckValuesTest, ConvertsEveryTypeAndSkipsUnusableValues) {
    const RegistryValueMap values = preflight::CheckValues({
        {L" KeyPath\t", Utf16(std::wstring(L"HKLM\\X\0junk", 11))},
        {L"Dword", {regtype::kDword, {0x1E, 0, 0, 0}}},
        {L"Multi", Utf16(std::wstring(L"a\0b\0\0", 5), regtype::kMultiSz)},
        {L"Odd", {regtype::kBinary, {'o', 0, 'k'}}},
        {L"Largest", {regtype::kBinary, std::vector<std::uint8_t>(8191, 0x79)}},
        {L"TooLarge", Utf16(std::wstring(4096, L'x'))},  // 8192 bytes
        {L"Empty", {regtype::kSz, {}}}, {L"", Utf16(L"default value")}, {L" \r\n", Utf16(L"blank name")}});
    const RegistryValueMap expected{
        {L"KeyPath", L"HKLM\\X"}, {L"Dword", L"30"}, {L"Multi", std::wstring(L"a\0b\0\0", 5)},
        {L"Odd", L"o"}, {L"Largest", std::wstring(4095, static_cast<wchar_t>(0x7979))}};
    EXPECT_EQ(values, expected);
    EXPECT_EQ(preflight::ShortenRootNames(L"HKEY_LOCAL_MACHINE\\A\\HKEY_USERS\\hkey_users"),
              L"HKLM\\A\\HU\\hkey_users");
}

TEST_F(RegistryChecksTest, RebootPendingTakesTheFirstSourceThatHolds) {
    // current, legacy: the NeedReboot components (nullptr: no key); line: the one reason given.
    const struct { bool wu, cbs; const wchar_t *current, *legacy, *line; } rows[] = {
        {true, true, L"Agent", L"Agent", L"Windows Auto Update Reboot is pending"},
        {false, true, L"Agent", L"Agent", L"Windows Component Based Servicing (CBS) Reboot is pending"},
        {false, false, L"Agent;Broker", L"Legacy", L"Quorvane components <Agent;Broker> need a reboot"},
        {false, false, L"", L"Legacy", L"Tessix components <Legacy> need a reboot"},
        {false, false, nullptr, L"", nullptr}};
    const std::wstring windows = L"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\";
    for (const auto& r : rows) {
        SCOPED_TRACE(&r - rows);
        Arrange();
        if (r.wu) fake::CreateRegistryKey(windows + L"WindowsUpdate\\Auto Update\\RebootRequired");
        if (r.cbs) fake::CreateRegistryKey(windows + L"Component Based Servicing\\RebootPending");
        if (r.current) fake::SetRegistryString(L"HKLM\\SOFTWARE\\Quorvane\\NeedReboot\\Components", r.current);
        if (r.legacy) fake::SetRegistryString(L"HKLM\\SOFTWARE\\Tessix, Inc.\\NeedReboot\\Components", r.legacy);
        EXPECT_EQ(preflight::isRebootPending(), r.line != nullptr);
        EXPECT_TRUE(LoggedLine(L"App::isRebootPending: checking registry keys for reboot pending"));
        EXPECT_EQ(Count(L"is pending\r\n") + Count(L"need a reboot\r\n"), r.line ? 1u : 0u);
        EXPECT_TRUE(!r.line || LoggedLine(std::wstring(L"App::isRebootPending: ") + r.line));
    }
}

}  // namespace
