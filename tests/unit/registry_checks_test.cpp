// Administrator-defined registry checks and the reboot-pending probe, against the fake registry.
#include "preflight/registry_checks.h"

#include <optional>

#include "test_support.h"

namespace {

namespace regtype = platform::regtype;

const std::wstring kCurrentChecks = CurrentProductRoot() + L"\\Agent\\PreflightChecks\\";
const std::wstring kLegacyChecks = LegacyProductRoot() + L"\\Agent\\PreflightChecks\\";

using CheckDefinition = std::vector<std::pair<const wchar_t*, const wchar_t*>>;

class RegistryChecksTest : public ToolTest {
protected:
    RegistryChecksTest() {
        fake::CreateRegistryKey(L"HKLM\\Software\\Target");
        fake::SetRegistryString(L"HKLM\\Software\\Target\\Mode", L"Enabled");
        fake::SetRegistryString(L"HKCU\\Software\\Target\\Mode", L"Enabled");
    }
    // Listed under listRoot, values under valuesRoot (by the trimmed name).
    static void AddCheck(const std::wstring& name, const CheckDefinition& values,
                         const std::wstring& listRoot = kLegacyChecks,
                         const std::wstring& valuesRoot = kCurrentChecks) {
        fake::CreateRegistryKey(listRoot + name);
        for (const auto& [value, text] : values)
            fake::SetRegistryString(valuesRoot + core::Trim(name) + L"\\" + value, text);
    }
    bool LoggedLine(const std::wstring& message) const { return Logged(L": " + message + L"\r\n"); }
};

// ---- The key-exists test ----

class KeyExistsTest : public RegistryChecksTest,
                      public ::testing::WithParamInterface<std::pair<const wchar_t*, bool>> {};

TEST_P(KeyExistsTest, NeedsAnExactRootPrefix) {
    fake::CreateRegistryKey(L"HKCU\\Software\\UserKey");
    fake::CreateRegistryKey(L"HKU\\.DEFAULT\\Software");
    fake::CreateRegistryKey(L"HKLM\\Software\\Denied");
    Platform().deniedKeys.insert(L"HKLM\\Software\\Denied");
    EXPECT_EQ(preflight::KeyExists(GetParam().first), GetParam().second) << GetParam().first;
}

INSTANTIATE_TEST_SUITE_P(
    Paths, KeyExistsTest,
    ::testing::Values(
        std::pair{L"HKLM\\Software\\Target", true},
        std::pair{L"HKEY_LOCAL_MACHINE\\Software\\Target", true},
        std::pair{L"HKEY_CURRENT_USER\\Software\\UserKey", true},
        std::pair{L"HKCU\\Software\\UserKey", true}, std::pair{L"HKU\\.DEFAULT\\Software", true},
        std::pair{L"HKEY_USERS\\.DEFAULT\\Software", true},
        std::pair{L"HKLM\\Software\\Missing", false}, std::pair{L"HKLM\\Software\\Denied", false},
        std::pair{L"hklm\\Software\\Target", false},
        std::pair{L"HKEY_Local_Machine\\Software\\Target", false},
        std::pair{L"HKLM/Software/Target", false}, std::pair{L" HKLM\\Software\\Target", false},
        std::pair{L"Software\\Target", false}, std::pair{L"", false}));

// ---- Action words ----

class ActionWordTest
    : public RegistryChecksTest,
      public ::testing::WithParamInterface<std::tuple<std::wstring, const wchar_t*, bool>> {};

TEST_P(ActionWordTest, KnownWordsInAnyCaseElseNone) {
    const auto& [input, expected, invalid] = GetParam();
    EXPECT_EQ(preflight::getPreflightCheckAction(input), expected);
    EXPECT_EQ(Logged(L"App::getPreflightCheckAction: invalid action ["), invalid);
}

INSTANTIATE_TEST_SUITE_P(
    Words, ActionWordTest,
    ::testing::Values(std::tuple{L"reboot", L"REBOOT", false},
                      std::tuple{L"Error", L"ERROR", false}, std::tuple{L"", L"NONE", false},
                      std::tuple{L"Restart", L"NONE", true}, std::tuple{L"NONE", L"NONE", true},
                      std::tuple{L"REBOOT ", L"NONE", true}, std::tuple{L"ERRORS", L"NONE", true},
                      // Stored words end at a NUL, as multi-string or binary data may hold one.
                      std::tuple{std::wstring(L"reboot\0\0", 8), L"REBOOT", false}));

// ---- One check, start to end ----

struct CheckCase {
    const char* label;
    CheckDefinition values;
    std::vector<std::wstring> actions;
    const wchar_t* line;  // a whole log message the check must produce
};

void PrintTo(const CheckCase& c, std::ostream* os) {
    *os << c.label;
}

class CheckRunTest : public RegistryChecksTest, public ::testing::WithParamInterface<CheckCase> {};

TEST_P(CheckRunTest, AddsItsAction) {
    AddCheck(L"  Check1\t", GetParam().values);
    const PreflightActionSet actions = preflight::performRegistryBasedChecks();
    EXPECT_EQ(std::vector<std::wstring>(actions.begin(), actions.end()), GetParam().actions);
    EXPECT_TRUE(
        LoggedLine(L"App::performRegistryBasedChecks: processing preflight check key [Check1]"));
    EXPECT_TRUE(LoggedLine(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    Checks, CheckRunTest,
    ::testing::Values(
        CheckCase{"no key path",
                  {{L"KeyPresentAction", L"ERROR"}},
                  {},
                  L"App::performRegistryBasedChecks: preflight check, unable to read keypath for "
                  L"check: [Check1], no action"},
        CheckCase{
            "key present",
            {{L"KeyPath", L"HKLM\\Software\\Target"}, {L"KeyPresentAction", L"reboot"}},
            {L"REBOOT"},
            L"App::performRegistryBasedChecks: preflight check [Check1], action [REBOOT] is added"},
        CheckCase{"unknown word",
                  {{L"KeyPath", L"HKLM\\Software\\Target"}, {L"KeyPresentAction", L"Restart"}},
                  {L"NONE"},
                  L"App::getPreflightCheckAction: invalid action [Restart]"},
        CheckCase{
            "key-present action wins over the value match",
            {{L"KeyPath", L"HKLM\\Software\\Target"},
             {L"KeyPresentAction", L"Reboot"},
             {L"ValueName", L"Mode"},
             {L"ExpectedValue", L"Enabled"},
             {L"ValueMatchAction", L"ERROR"}},
            {L"REBOOT"},
            L"App::performRegistryBasedChecks: preflight check [Check1], action [REBOOT] is added"},
        CheckCase{"value matches without regard to case",
                  {{L"KeyPath", L"HKLM\\Software\\Target"},
                   {L"ValueName", L"Mode"},
                   {L"ExpectedValue", L"ENABLED"},
                   {L"ValueMatchAction", L"error"}},
                  {L"ERROR"},
                  L"App::getValueMatchAction: preflight check [HKLM\\Software\\Target], value "
                  L"matches, adding an action [error] to process"},
        CheckCase{
            "long machine root is shortened for the read",
            {{L"KeyPath", L"HKEY_LOCAL_MACHINE\\Software\\Target"},
             {L"ValueName", L"Mode"},
             {L"ExpectedValue", L"enabled"},
             {L"ValueMatchAction", L"REBOOT"}},
            {L"REBOOT"},
            L"App::performRegistryBasedChecks: preflight check [Check1], action [REBOOT] is added"},
        CheckCase{
            "long user root exists but its short form reads nothing",
            {{L"KeyPath", L"HKEY_CURRENT_USER\\Software\\Target"},
             {L"ValueName", L"Mode"},
             {L"ExpectedValue", L"Enabled"},
             {L"ValueMatchAction", L"REBOOT"}},
            {L"NONE"},
            L"App::performRegistryBasedChecks: preflight check [Check1], action [NONE] is added"},
        CheckCase{
            "value differs",
            {{L"KeyPath", L"HKLM\\Software\\Target"},
             {L"ValueName", L"Mode"},
             {L"ExpectedValue", L"Disabled"},
             {L"ValueMatchAction", L"ERROR"}},
            {L"NONE"},
            L"App::performRegistryBasedChecks: preflight check [Check1], action [NONE] is added"},
        CheckCase{
            "empty expectation never matches, not even a missing value",
            {{L"KeyPath", L"HKLM\\Software\\Target"},
             {L"ValueName", L"Absent"},
             {L"ExpectedValue", L""},
             {L"ValueMatchAction", L"ERROR"}},
            {L"NONE"},
            L"App::performRegistryBasedChecks: preflight check [Check1], action [NONE] is added"},
        CheckCase{"no value match action",
                  {{L"KeyPath", L"HKLM\\Software\\Target"},
                   {L"ValueName", L"Mode"},
                   {L"ExpectedValue", L"Enabled"}},
                  {L"NONE"},
                  L"App::getValueMatchAction: no value match action defined"}));

TEST_F(RegistryChecksTest, EachActionOnceInOrder) {
    AddCheck(L"A", {{L"KeyPath", L"HKLM\\Software\\Target"}, {L"KeyPresentAction", L"REBOOT"}});
    AddCheck(L"B", {{L"KeyPath", L"HKLM\\Software\\Target"}, {L"KeyPresentAction", L"reboot"}});
    AddCheck(L"C", {{L"KeyPath", L"HKLM\\Software\\Target"}, {L"KeyPresentAction", L"Error"}});
    EXPECT_EQ(preflight::performRegistryBasedChecks(), (PreflightActionSet{L"ERROR", L"REBOOT"}));
}

TEST_F(RegistryChecksTest, ListRootFollowsTheUpgradeButValuesComeFromTheCurrentRoot) {
    const CheckDefinition reboot{{L"KeyPath", L"HKLM\\Software\\Target"},
                                 {L"KeyPresentAction", L"REBOOT"}};
    const CheckDefinition error{{L"KeyPath", L"HKLM\\Software\\Target"},
                                {L"KeyPresentAction", L"ERROR"}};
    AddCheck(L"A", error, kLegacyChecks, kLegacyChecks);  // its legacy values are never read
    AddCheck(L"A", reboot, kCurrentChecks, kCurrentChecks);
    AddCheck(L"B", error, kCurrentChecks, kCurrentChecks);
    AddCheck(L"C", reboot, kLegacyChecks, kLegacyChecks);

    EXPECT_EQ(preflight::performRegistryBasedChecks(), PreflightActionSet{L"REBOOT"});
    EXPECT_FALSE(Logged(L"[B]"));
    EXPECT_TRUE(
        LoggedLine(L"App::performRegistryBasedChecks: preflight check, unable to read "
                   L"keypath for check: [C], no action"));

    StartLog();
    ActiveUpdateRecord().legacyUpgradeDetected = true;
    EXPECT_EQ(preflight::performRegistryBasedChecks(), (PreflightActionSet{L"ERROR", L"REBOOT"}));
    EXPECT_FALSE(Logged(L"[C]"));
}

// ---- Check values and root names ----

platform::RegistryValue Utf16(std::wstring_view text, std::uint32_t type = regtype::kSz) {
    return {type, core::Utf16BytesFromWide(text, false)};
}

TEST(CheckValuesTest, ConvertsEveryTypeAndSkipsUnusableValues) {
    fake::FakePlatformScope scope;
    fake::State().environment[L"ROOT"] = L"C:\\Data";
    const RegistryValueMap values = preflight::CheckValues({
        {L" KeyPath\t", Utf16(std::wstring(L"HKLM\\X\0junk", 11))},
        {L"Dword", {regtype::kDword, {0x1E, 0, 0, 0}}},
        {L"Qword", {regtype::kQword, {0, 0, 0, 0, 1, 0, 0, 0}}},
        {L"Expand", Utf16(L"%ROOT%\\x", regtype::kExpandSz)},
        {L"Multi", Utf16(std::wstring(L"a\0b\0\0", 5), regtype::kMultiSz)},
        {L"Odd", {regtype::kBinary, {'o', 0, 'k'}}},
        {L"Largest", {regtype::kBinary, std::vector<std::uint8_t>(8191, 0x79)}},
        {L"TooLarge", Utf16(std::wstring(4096, L'x'))},  // 8192 bytes
        {L"Empty", {regtype::kSz, {}}},
        {L"", Utf16(L"default value")},
        {L" \r\n", Utf16(L"blank name")},
    });
    const RegistryValueMap expected{
        {L"KeyPath", L"HKLM\\X"},
        {L"Dword", L"30"},
        {L"Qword", L"4294967296"},
        {L"Expand", L"C:\\Data\\x"},
        {L"Multi", std::wstring(L"a\0b\0\0", 5)},
        {L"Odd", L"o"},
        {L"Largest", std::wstring(4095, static_cast<wchar_t>(0x7979))},
    };
    EXPECT_EQ(values, expected);
    EXPECT_EQ(values.count(L"keypath"), 1u);
}

TEST(ShortenRootNamesTest, ReplacesEveryLongNameAsWritten) {
    EXPECT_EQ(preflight::ShortenRootNames(L"HKEY_LOCAL_MACHINE\\A\\HKEY_LOCAL_MACHINE"),
              L"HKLM\\A\\HKLM");
    EXPECT_EQ(preflight::ShortenRootNames(L"HKEY_CURRENT_USER\\A"), L"HCU\\A");
    EXPECT_EQ(preflight::ShortenRootNames(L"HKEY_CLASSES_ROOT\\A"), L"HCR\\A");
    EXPECT_EQ(preflight::ShortenRootNames(L"HKEY_CURRENT_CONFIG\\A"), L"HCC\\A");
    EXPECT_EQ(preflight::ShortenRootNames(L"HKEY_USERS\\A"), L"HU\\A");
    EXPECT_EQ(preflight::ShortenRootNames(L"hkey_local_machine\\A"), L"hkey_local_machine\\A");
}

// ---- Reboot pending ----

struct PendingCase {
    const char* label;
    bool windowsUpdate;
    bool servicing;
    std::optional<const wchar_t*> currentComponents;  // the NeedReboot key, with this text
    std::optional<const wchar_t*> legacyComponents;
    const wchar_t* line;  // the one reason given, or nullptr
};

void PrintTo(const PendingCase& c, std::ostream* os) {
    *os << c.label;
}

class RebootPendingTest : public RegistryChecksTest,
                          public ::testing::WithParamInterface<PendingCase> {};

TEST_P(RebootPendingTest, FirstSourceThatHoldsDecides) {
    const PendingCase& c = GetParam();
    if (c.windowsUpdate)
        fake::CreateRegistryKey(
            L"HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\WindowsUpdate\\"
            L"Auto Update\\RebootRequired");
    if (c.servicing)
        fake::CreateRegistryKey(
            L"HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Component "
            L"Based Servicing\\RebootPending");
    if (c.currentComponents)
        fake::SetRegistryString(L"HKLM\\SOFTWARE\\Quorvane\\NeedReboot\\Components",
                                *c.currentComponents);
    if (c.legacyComponents)
        fake::SetRegistryString(L"HKLM\\SOFTWARE\\Tessix, Inc.\\NeedReboot\\Components",
                                *c.legacyComponents);

    EXPECT_EQ(preflight::isRebootPending(), c.line != nullptr);
    EXPECT_TRUE(LoggedLine(L"App::isRebootPending: checking registry keys for reboot pending"));
    const std::wstring text = LogText();
    std::size_t reasons = 0;
    for (const wchar_t* reason : {L"is pending\r\n", L"need a reboot\r\n"})
        for (auto at = text.find(reason); at != std::wstring::npos; at = text.find(reason, at + 1))
            ++reasons;
    EXPECT_EQ(reasons, c.line ? 1u : 0u);
    if (c.line) {
        EXPECT_TRUE(LoggedLine(std::wstring(L"App::isRebootPending: ") + c.line));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sources, RebootPendingTest,
    ::testing::Values(PendingCase{"nothing", false, false, std::nullopt, std::nullopt, nullptr},
                      PendingCase{"windows update first", true, true, L"Agent", L"Agent",
                                  L"Windows Auto Update Reboot is pending"},
                      PendingCase{"servicing only", false, true, L"Agent", L"Agent",
                                  L"Windows Component Based Servicing (CBS) Reboot is pending"},
                      PendingCase{"our components", false, false, L"Agent;Broker", L"Legacy",
                                  L"Quorvane components <Agent;Broker> need a reboot"},
                      PendingCase{"empty marker: the legacy one decides", false, false, L"",
                                  L"Legacy", L"Tessix components <Legacy> need a reboot"},
                      PendingCase{"both markers empty", false, false, L"", L"", nullptr},
                      PendingCase{"empty marker, no legacy one", false, false, L"", std::nullopt,
                                  nullptr}));

}  // namespace
