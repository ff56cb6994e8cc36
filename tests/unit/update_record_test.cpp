#include "state/update_record.h"

#include "app/entry.h"
#include "state/registry.h"
#include "test_support.h"

namespace {

const std::wstring kCurrent = L"HKLM\\Software\\Quorvane\\Lumenar\\Agent\\Update\\";
const std::wstring kLegacy = L"HKLM\\Software\\Tessix, Inc.\\Tessix KDX\\Agent\\Update\\";

void SetMultiString(const std::wstring& path, const std::wstring& text) {
    std::wstring stored = text;
    stored.push_back(L'\0');  // the terminating empty string; the writer adds the last NUL
    fake::SetRegistryValue(path,
                           {platform::regtype::kMultiSz, core::Utf16BytesFromWide(stored, true)});
}

class UpdateRecordTest : public ToolTest {
protected:
    UpdateRecord& Record() { return ActiveUpdateRecord(); }

    // A key that passes the required checks.
    void ArrangeUpdate(const std::wstring& updates, const std::wstring& id) {
        fake::SetRegistryString(updates + id + L"\\AGENT", L"OTHER");
        SetMultiString(updates + id + L"\\URL", L"https://a");
    }
};

// ---- Finding the update ----

TEST_F(UpdateRecordTest, LegacyUpdateWinsOverTheCurrentOne) {
    ArrangeUpdate(kCurrent, L"new");
    ArrangeUpdate(kLegacy, L"old");
    ASSERT_TRUE(UtilGetActiveUpdate());
    EXPECT_EQ(Record().keyId, L"old");
    EXPECT_TRUE(Record().legacyUpgradeDetected);
    EXPECT_TRUE(Logged(L"UtilGetActiveUpdate: Tessix to Quorvane agent upgrade detected\r\n"));
    EXPECT_TRUE(Logged(L"UtilGetActiveUpdate: Update key: old\r\n"));
    EXPECT_FALSE(Logged(L"No Tessix active updates"));
}

TEST_F(UpdateRecordTest, FirstEnumeratedCurrentKeyWinsWithoutSorting) {
    Record().legacyUpgradeDetected = true;  // left over from an earlier lookup
    EXPECT_FALSE(UtilGetActiveUpdate());
    EXPECT_TRUE(Logged(L"UtilGetActiveUpdate: No Quorvane active updates\r\n"));
    fake::CreateRegistryKey(kCurrent + L"b");
    fake::CreateRegistryKey(kCurrent + L"a");
    ASSERT_TRUE(UtilGetActiveUpdate());
    EXPECT_EQ(Record().keyId, L"b");
    EXPECT_FALSE(Record().legacyUpgradeDetected);
    EXPECT_TRUE(Logged(L"UtilGetActiveUpdate: No Tessix active updates\r\n"));
    EXPECT_TRUE(Logged(L"UtilGetActiveUpdate: Check for Quorvane active updates\r\n"));
}

// ---- Reading the update key ----

TEST_F(UpdateRecordTest, ReadsEveryValueAndLeavesNoStaleOnes) {
    const std::wstring key = kLegacy + L"u1\\";
    ArrangeUpdate(kLegacy, L"u1");
    for (const wchar_t* name :
         {L"VERSION", L"PACURL", L"ARCH", L"CHECKSUM", L"FILESIZE", L"CERTTYPE", L"OPTIONS",
          L"RESULT", L"FILENAME", L"PACKAGEFILENAME", L"RELATIVEFOLDERPATH"})
        fake::SetRegistryString(key + name, std::wstring(L"v-") + name);
    fake::SetRegistryString(key + L"STATE", L"Updating");
    fake::SetRegistryDword(key + L"RETRY", 4);
    SetMultiString(key + L"PROXY", L"p");
    fake::SetRegistryString(key + L"METADATA",
                            L"<PROPERTYBAG><ITEM name=\"THUMBPRINT\">t</ITEM></PROPERTYBAG>");
    ASSERT_TRUE(UtilGetActiveUpdate());
    ASSERT_TRUE(UtilGetRegistry());

    const UpdateRecord& r = Record();
    EXPECT_EQ(r.state, update_state::kUpdating);
    EXPECT_EQ(r.retry, 4);
    const std::pair<const std::wstring*, const wchar_t*> fields[] = {
        {&r.version, L"VERSION"},
        {&r.pacUrl, L"PACURL"},
        {&r.arch, L"ARCH"},
        {&r.checksum, L"CHECKSUM"},
        {&r.fileSize, L"FILESIZE"},
        {&r.certType, L"CERTTYPE"},
        {&r.options, L"OPTIONS"},
        {&r.result, L"RESULT"},
        {&r.fileName, L"FILENAME"},
        {&r.packageFileName, L"PACKAGEFILENAME"},
        {&r.relativeFolderPath, L"RELATIVEFOLDERPATH"}};
    for (const auto& [field, name] : fields) EXPECT_EQ(*field, std::wstring(L"v-") + name);
    EXPECT_TRUE(Logged(L": Update key: u1 ARCH = v-ARCH\r\n"));

    // The service rewrites the key with the required values only.
    Platform().hives.clear();
    ArrangeUpdate(kLegacy, L"u1");
    Record().errorCode = L"kept";  // this run's outcome, not a value of the key
    ASSERT_TRUE(UtilGetRegistry());
    UpdateKeyValues minimal;
    minimal.agent = L"OTHER";
    minimal.urls = {L"https://a"};
    EXPECT_TRUE(static_cast<const UpdateKeyValues&>(Record()) == minimal);
    EXPECT_EQ(Record().errorCode, L"kept");
}

TEST_F(UpdateRecordTest, EmptyOrMissingKeyFailsNamingTheRoot) {
    Record().keyId = L"u1";
    EXPECT_FALSE(UtilGetRegistry());
    EXPECT_TRUE(Logged(L"UtilGetRegistry: Quorvane Update key: u1 empty key\r\n"));
    fake::CreateRegistryKey(kLegacy + L"u1");
    Record().legacyUpgradeDetected = true;
    EXPECT_FALSE(UtilGetRegistry());
    EXPECT_TRUE(Logged(L"UtilGetRegistry: Tessix Update key: u1 empty key\r\n"));
}

struct ListCase {
    std::wstring stored;  // NULs separate the pieces
    std::vector<std::wstring> expected;
    const wchar_t* logged;
};

class ListValueTest : public UpdateRecordTest,
                      public ::testing::WithParamInterface<std::tuple<bool, ListCase>> {};

TEST_P(ListValueTest, SplitsAtNulsAndDropsEmptyPieces) {
    const auto& [proxy, c] = GetParam();
    ArrangeUpdate(kCurrent, L"u1");
    SetMultiString(kCurrent + (proxy ? L"u1\\PROXY" : L"u1\\URL"), c.stored);
    ASSERT_TRUE(UtilGetActiveUpdate());
    if (!proxy && c.expected.empty()) {
        EXPECT_FALSE(UtilGetRegistry());
        EXPECT_TRUE(Logged(L"UtilGetRegistry: required parameter empty\r\n"));
        return;
    }
    ASSERT_TRUE(UtilGetRegistry());
    EXPECT_EQ(proxy ? Record().proxies : Record().urls, c.expected);
    EXPECT_TRUE(Logged(std::wstring(proxy ? L"UtilGetRegistry: Proxy length: "
                                          : L"UtilGetRegistry: URL length: ") +
                       c.logged + L"\r\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ListValueTest,
    ::testing::Combine(
        ::testing::Bool(),
        ::testing::Values(ListCase{std::wstring(L"a\0b", 3), {L"a", L"b"}, L"2 [a,b]"},
                          ListCase{std::wstring(L"\0a\0\0b\0", 6), {L"a", L"b"}, L"2 [a,b]"},
                          ListCase{L"only", {L"only"}, L"1 [only]"}, ListCase{L"", {}, L"0 []"})));

TEST_F(UpdateRecordTest, ThumbprintsComeFromMetadataInDocumentOrder) {
    ArrangeUpdate(kCurrent, L"u1");
    fake::SetRegistryString(
        kCurrent + L"u1\\METADATA",
        L"<PROPERTYBAG><ITEM name=\"THUMBPRINT\">t1</ITEM><ITEM name=\"OTHER\">x</ITEM>"
        L"<ITEM name='THUMBPRINT'>t2</ITEM><ITEM name=\"THUMBPRINT\">t3</ITEM></PROPERTYBAG>");
    ASSERT_TRUE(UtilGetActiveUpdate());
    ASSERT_TRUE(UtilGetRegistry());
    EXPECT_EQ(Record().thumbprints, (std::vector<std::wstring>{L"t1", L"t2", L"t3"}));
    EXPECT_TRUE(Logged(L"UtilGetRegistry: matadata XML string loaded\r\n"));
}

TEST_F(UpdateRecordTest, MalformedMetadataGivesNoThumbprintsButReads) {
    ArrangeUpdate(kCurrent, L"u1");
    const std::wstring broken = L"<PROPERTYBAG><ITEM name=\"THUMBPRINT\">t1</ITEM>";
    fake::SetRegistryString(kCurrent + L"u1\\METADATA", broken);
    ASSERT_TRUE(UtilGetActiveUpdate());
    ASSERT_TRUE(UtilGetRegistry());
    EXPECT_TRUE(Record().thumbprints.empty());
    EXPECT_EQ(Record().metadata, broken);
    EXPECT_FALSE(Logged(L"matadata XML string loaded"));
    EXPECT_TRUE(Logged(L"PropertyBag Parse failed: expected end of property bag, line=1, col=47"));
}

// ---- State names ----

class StateIdTest : public UpdateRecordTest,
                    public ::testing::WithParamInterface<std::pair<const wchar_t*, int>> {};

TEST_P(StateIdTest, MatchesWholeNamesInAnyCase) {
    const auto& [name, id] = GetParam();
    EXPECT_EQ(UtilStateId(name), id);
    EXPECT_EQ(Logged(std::wstring(L"UtilStateId: invalid state: ") + name + L"\r\n"), id == 0);
    if (id != 0) {
        EXPECT_TRUE(platform::EqualsIgnoreCase(stateStr(id), name));
    }
}

INSTANTIATE_TEST_SUITE_P(Names, StateIdTest,
                         ::testing::Values(std::pair{L"ready", 1}, std::pair{L"Download", 2},
                                           std::pair{L"WAIT", 3}, std::pair{L"nologon", 4},
                                           std::pair{L"UPDATING", 5}, std::pair{L"done", 6},
                                           std::pair{L"READY ", 0}, std::pair{L"", 0},
                                           std::pair{L"READ", 0}));

TEST_F(UpdateRecordTest, StateStrRefusesIdsOutsideOneToSix) {
    for (int id : {0, 7, -1}) {
        EXPECT_EQ(stateStr(id), L"");
        EXPECT_TRUE(Logged(L"stateStr: invalid state: " + std::to_wstring(id) + L"\r\n"));
    }
}

// ---- Agent check and the caller's properties ----

struct AgentCase {
    const wchar_t* agent;
    const wchar_t* fileName;  // nullptr: no FILENAME value
    bool accepted;
};

class AgentCheckTest : public UpdateRecordTest, public ::testing::WithParamInterface<AgentCase> {};

TEST_P(AgentCheckTest, UnknownAgentFailsOnlyWithAFileName) {
    const AgentCase& c = GetParam();
    ArrangeUpdate(kCurrent, L"u1");
    fake::SetRegistryString(kCurrent + L"u1\\AGENT", c.agent);
    fake::SetRegistryString(kCurrent + L"u1\\ARCH", L"64-BitAgent");
    if (c.fileName) fake::SetRegistryString(kCurrent + L"u1\\FILENAME", c.fileName);
    UpdateProperties properties;
    EXPECT_EQ(Util_GetUpdateState(properties), c.accepted);
    EXPECT_EQ(Logged(std::wstring(L"Util_GetUpdateState: Update key: u1 invalid agent: ") +
                     c.agent + L"\r\n"),
              !c.accepted);
    if (c.accepted) {
        EXPECT_EQ(properties.size(), 5u);
        EXPECT_EQ(properties[L"AGENT"], c.agent);
        EXPECT_EQ(properties[L"ARCH"], L"64-BitAgent");
        EXPECT_EQ(properties[L"FILENAME"], c.fileName ? c.fileName : L"");
    }
}

INSTANTIATE_TEST_SUITE_P(Agents, AgentCheckTest,
                         ::testing::Values(AgentCase{L"DESKTOP", L"setup.msi", false},
                                           AgentCase{L"DESKTOP", nullptr, true},
                                           AgentCase{L"DESKTOP", L"", true},
                                           AgentCase{L"orel", L"setup.exe", true},
                                           AgentCase{L"Other", L"setup.msi", true}));

TEST_F(UpdateRecordTest, RegistryFailureIsReported) {
    fake::SetRegistryString(kCurrent + L"u1\\VERSION", L"1.0");
    UpdateProperties properties;
    EXPECT_FALSE(Util_GetUpdateState(properties));
    EXPECT_TRUE(Logged(L"Util_GetUpdateState: Update key: u1 Registry failure\r\n"));
    EXPECT_TRUE(properties.empty());
}

// ---- Flags and start-up settings ----

TEST_F(UpdateRecordTest, PreflightCompleteIsReadUnderTheCurrentRootOnly) {
    EXPECT_FALSE(ReadPreflightCheckComplete());  // no update
    Record().keyId = L"u1";
    Record().legacyUpgradeDetected = true;
    fake::SetRegistryDword(kLegacy + L"u1\\PreflightCheckComplete", 1);
    EXPECT_FALSE(ReadPreflightCheckComplete());
    fake::SetRegistryDword(kCurrent + L"u1\\PreflightCheckComplete", 1);
    EXPECT_TRUE(ReadPreflightCheckComplete());
}

TEST_F(UpdateRecordTest, EnabledHonoursPolicyAndTheFormerProductsPolicy) {
    EXPECT_TRUE(ReadUpdateEnabled());
    fake::SetRegistryString(kCurrent + L"Enabled", L"1");
    fake::SetRegistryString(
        L"HKLM\\Software\\Policies\\Tessix, Inc.\\Tessix KDX\\Agent\\Update\\Enabled", L"0");
    EXPECT_FALSE(ReadUpdateEnabled());
    fake::SetRegistryString(L"HKLM\\Software\\Policies\\Quorvane\\Lumenar\\Agent\\Update\\Enabled",
                            L"yes");
    EXPECT_TRUE(ReadUpdateEnabled());
}

struct RetryCase {
    std::optional<std::wstring> maxText;
    std::optional<std::wstring> waitText;
    std::int32_t maxRetry;
    std::uint32_t waitMs;
    const wchar_t* logged;  // nullptr: nothing logged
};

class RetrySettingsTest : public UpdateRecordTest,
                          public ::testing::WithParamInterface<RetryCase> {};

TEST_P(RetrySettingsTest, ParsesOrKeepsTheDefault) {
    const RetryCase& c = GetParam();
    if (c.maxText) fake::SetRegistryString(kCurrent + L"MAXDOWNLOADANDUPGRADERETRY", *c.maxText);
    if (c.waitText) fake::SetRegistryString(kCurrent + L"RetryWaitPeriod", *c.waitText);
    ReadRetrySettings();
    EXPECT_EQ(Record().maxRetry, c.maxRetry);
    EXPECT_EQ(Record().retryWaitMs, c.waitMs);
    if (c.logged) {
        EXPECT_TRUE(Logged(std::wstring(L"ReadRetrySettings: ") + c.logged + L"\r\n"));
    } else {
        EXPECT_FALSE(Logged(L"ReadRetrySettings"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Settings, RetrySettingsTest,
    ::testing::Values(
        RetryCase{std::nullopt, std::nullopt, 2, 300000, nullptr},
        RetryCase{L"5", L"60000", 5, 60000, nullptr},
        RetryCase{L"-1", L"4294967295", -1, 4294967295u, nullptr},
        RetryCase{L"three", std::nullopt, 2, 300000,
                  L"invalid MAXDOWNLOADANDUPGRADERETRY value 'three', using the default 2"},
        RetryCase{L"2147483648", L"-5", 2, 300000,
                  L"invalid RetryWaitPeriod value '-5', using the default 300000"},
        RetryCase{std::nullopt, L"4294967296", 2, 300000,
                  L"invalid RetryWaitPeriod value '4294967296', using the default 300000"}));

TEST_F(UpdateRecordTest, RetrySettingsAcceptDwordsAndPolicy) {
    fake::SetRegistryDword(kCurrent + L"MAXDOWNLOADANDUPGRADERETRY", 3);
    fake::SetRegistryDword(
        L"HKLM\\Software\\Policies\\Quorvane\\Lumenar\\Agent\\Update\\RetryWaitPeriod", 1000);
    fake::SetRegistryString(kCurrent + L"RetryWaitPeriod", L"9");
    ReadRetrySettings();
    EXPECT_EQ(Record().maxRetry, 3);
    EXPECT_EQ(Record().retryWaitMs, 1000u);
}

TEST_F(UpdateRecordTest, RunReadsRetrySettingsOnlyPastTheMutex) {
    fake::SetRegistryString(kCurrent + L"MAXDOWNLOADANDUPGRADERETRY", L"x");
    Platform().mutexes[kSingleInstanceMutexName] = {};
    EXPECT_EQ(RunTool(), -3);
    EXPECT_FALSE(Logged(L"ReadRetrySettings"));

    Platform().mutexes.clear();
    fake::SetRegistryString(kCurrent + L"MAXDOWNLOADANDUPGRADERETRY", L"7");
    EXPECT_EQ(RunTool(), -1);
    EXPECT_EQ(Record().maxRetry, 7);
}

}  // namespace
