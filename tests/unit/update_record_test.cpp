#include "state/update_record.h"

#include "app/entry.h"
#include "state/registry.h"
#include "test_support.h"

namespace {

const std::wstring kPolicy = L"HKLM\\Software\\Policies\\Quorvane\\Lumenar\\Agent\\Update\\";
const std::wstring kMaxRetry = CurrentUpdates() + L"MAXDOWNLOADANDUPGRADERETRY";
std::wstring Text(const wchar_t* text) { return text; }

class UpdateRecordTest : public ToolTest {
protected:
    void Again() {  // a fresh run for the next row
        fake::Reset();
        ResetUpdateRecordForTesting();
        StartLog();
    }
};

// Any update under the former product's root wins; else the first key the registry enumerates.
TEST_F(UpdateRecordTest, ChoosesTheLegacyRootFirstThenTheRegistrysOrder) {
    struct Row { std::vector<const wchar_t*> legacy, current; const wchar_t *key, *line; };
    const Row rows[] = {{{L"old"}, {L"new"}, L"old", L"Tessix to Quorvane agent upgrade detected"},
                        {{}, {L"b", L"a"}, L"b", L"Check for Quorvane active updates"},
                        {{}, {}, L"", L"No Quorvane active updates"}};
    for (const Row& c : rows) {
        SCOPED_TRACE(c.line);
        Again();
        Record().keyId = L"stale";
        Record().legacyUpgradeDetected = c.legacy.empty();  // left over from an earlier lookup
        for (const wchar_t* id : c.legacy) fake::CreateRegistryKey(LegacyUpdates() + id);
        for (const wchar_t* id : c.current) fake::CreateRegistryKey(CurrentUpdates() + id);
        EXPECT_EQ(UtilGetActiveUpdate(), *c.key != 0);
        EXPECT_EQ(Record().keyId, c.key);
        EXPECT_EQ(Record().legacyUpgradeDetected, !c.legacy.empty());
        EXPECT_TRUE(LoggedLine(std::wstring(L"UtilGetActiveUpdate: ") + c.line));
        EXPECT_EQ(LoggedLine(L"UtilGetActiveUpdate: No Tessix active updates"), c.legacy.empty());
        EXPECT_EQ(Logged(std::wstring(L"UtilGetActiveUpdate: Update key: ") + c.key + L"\r\n"),
                  *c.key != 0);
    }
}

TEST_F(UpdateRecordTest, ReadsEveryValueAndLeavesNoStaleOnes) {
    using K = UpdateKeyValues;
    // clang-format off
    const std::pair<const wchar_t*, std::wstring K::*> fields[] = {
        {L"VERSION", &K::version}, {L"PACURL", &K::pacUrl}, {L"ARCH", &K::arch},
        {L"CHECKSUM", &K::checksum}, {L"FILESIZE", &K::fileSize}, {L"CERTTYPE", &K::certType},
        {L"OPTIONS", &K::options}, {L"RESULT", &K::result}, {L"FILENAME", &K::fileName},
        {L"PACKAGEFILENAME", &K::packageFileName}, {L"RELATIVEFOLDERPATH", &K::relativeFolderPath}};
    // clang-format on
    std::vector<std::pair<std::wstring, std::wstring>> values{
        {L"STATE", L"Updating"},
        {L"METADATA", L"<PROPERTYBAG><ITEM name=\"THUMBPRINT\">t1</ITEM><ITEM name=\"OTHER\">"
                      L"x</ITEM><ITEM name='THUMBPRINT'>t2</ITEM><ITEM name=\"THUMBPRINT\">t3"
                      L"</ITEM></PROPERTYBAG>"}};
    for (const auto& [name, field] : fields) values.emplace_back(name, std::wstring(L"v-") + name);
    ArrangeUpdate(LegacyUpdates(), L"u1", values);
    fake::SetRegistryDword(LegacyUpdates() + L"u1\\RETRY", 4);
    ASSERT_TRUE(UtilGetActiveUpdate());
    ASSERT_TRUE(UtilGetRegistry());
    EXPECT_EQ(Record().state, update_state::kUpdating);
    EXPECT_EQ(Record().retry, 4);
    EXPECT_EQ(Record().thumbprints, (std::vector<std::wstring>{L"t1", L"t2", L"t3"}));  // in order
    EXPECT_TRUE(LoggedLine(L"UtilGetRegistry: matadata XML string loaded"));
    for (const auto& [name, field] : fields) EXPECT_EQ(Record().*field, std::wstring(L"v-") + name);
    EXPECT_TRUE(LoggedLine(L"Update key: u1 ARCH = v-ARCH"));

    // The service rewrites the key with the required values and malformed metadata, which
    // gives no thumbprints but still reads.
    Platform().hives.clear();
    UpdateKeyValues minimal;
    minimal.agent = L"OTHER";
    minimal.urls = {L"https://a"};
    minimal.metadata = L"<PROPERTYBAG><ITEM name=\"THUMBPRINT\">t1</ITEM>";
    ArrangeUpdate(LegacyUpdates(), L"u1", {{L"METADATA", minimal.metadata}});
    Record().errorCode = L"kept";  // this run's outcome, not a value of the key
    ASSERT_TRUE(UtilGetRegistry());
    EXPECT_TRUE(LoggedLine(L"PropertyBag Parse failed: expected end of property bag, line=1, "
                           L"col=47"));
    EXPECT_TRUE(static_cast<const UpdateKeyValues&>(Record()) == minimal);
    EXPECT_EQ(Record().errorCode, L"kept");

    Platform().hives.clear();  // an empty or missing key names its root
    EXPECT_FALSE(UtilGetRegistry());
    EXPECT_TRUE(LoggedLine(L"UtilGetRegistry: Tessix Update key: u1 empty key"));
    Record().legacyUpgradeDetected = false;
    EXPECT_FALSE(UtilGetRegistry());
    EXPECT_TRUE(LoggedLine(L"UtilGetRegistry: Quorvane Update key: u1 empty key"));
}

// URL and PROXY split at NULs without empty pieces; a key without a URL is refused.
TEST_F(UpdateRecordTest, ListValuesSplitAtNulsAndDropEmptyPieces) {
    struct Row { std::wstring stored; std::vector<std::wstring> list; const wchar_t* logged; };
    const Row rows[] = {{std::wstring(L"\0a\0\0b\0", 6), {L"a", L"b"}, L"2 [a,b]"},
                        {L"only", {L"only"}, L"1 [only]"},
                        {L"", {}, L"0 []"}};
    for (const Row& c : rows)
        for (const bool proxy : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.logged << proxy);
            Again();
            ArrangeUpdate(CurrentUpdates(), L"u1");
            SetMultiString(CurrentUpdates() + (proxy ? L"u1\\PROXY" : L"u1\\URL"), c.stored);
            ASSERT_TRUE(UtilGetActiveUpdate());
            const bool refused = !proxy && c.list.empty();
            EXPECT_EQ(UtilGetRegistry(), !refused);
            EXPECT_EQ(LoggedLine(L"UtilGetRegistry: required parameter empty"), refused);
            EXPECT_EQ(proxy ? Record().proxies : Record().urls, c.list);
            EXPECT_TRUE(LoggedLine(std::wstring(L"UtilGetRegistry: ") +
                                   (proxy ? L"Proxy length: " : L"URL length: ") + c.logged));
        }
}

TEST_F(UpdateRecordTest, StateNamesAreWholeInAnyCaseAndIdsOneToSix) {
    // clang-format off
    const std::pair<const wchar_t*, int> rows[] = {{L"ready", 1}, {L"Download", 2}, {L"WAIT", 3},
        {L"nologon", 4}, {L"UPDATING", 5}, {L"done", 6}, {L"READY ", 0}, {L"READ", 0}};
    // clang-format on
    for (const auto& [name, id] : rows) {
        EXPECT_EQ(UtilStateId(name), id) << name;
        EXPECT_EQ(LoggedLine(std::wstring(L"UtilStateId: invalid state: ") + name), id == 0);
        if (id) { EXPECT_TRUE(platform::EqualsIgnoreCase(stateStr(id), name)); }
    }
    for (int id : {0, 7}) {
        EXPECT_EQ(stateStr(id), L"");
        EXPECT_TRUE(LoggedLine(L"stateStr: invalid state: " + std::to_wstring(id)));
    }
}

// Only an update that names its installer must name a known agent.
TEST_F(UpdateRecordTest, UnknownAgentFailsOnlyWithAFileName) {
    struct Row { const wchar_t *agent, *file; bool ok; const wchar_t* line; };  // agent "": no key
    const Row rows[] = {{L"DESKTOP", L"setup.msi", false, L"invalid agent: DESKTOP"},
                        {L"DESKTOP", L"", true, nullptr},
                        {L"orel", L"setup.exe", true, nullptr},
                        {L"Other", L"setup.msi", true, nullptr},
                        {L"", L"setup.msi", false, L"Registry failure"}};
    for (const Row& c : rows) {
        SCOPED_TRACE(c.agent);
        Again();
        if (*c.agent) ArrangeUpdate(CurrentUpdates(), L"u1", {{L"AGENT", c.agent}});
        fake::SetRegistryString(CurrentUpdates() + L"u1\\ARCH", L"64-BitAgent");
        fake::SetRegistryString(CurrentUpdates() + L"u1\\FILENAME", c.file);
        UpdateProperties got;
        EXPECT_EQ(Util_GetUpdateState(got), c.ok);
        EXPECT_TRUE(!c.line || LoggedLine(L"Util_GetUpdateState: Update key: u1 " + Text(c.line)));
        EXPECT_EQ(got.size(), c.ok ? 5u : 0u);
        if (c.ok) { EXPECT_EQ(got[L"AGENT"] + got[L"ARCH"] + got[L"FILENAME"],
                            std::wstring(c.agent) + L"64-BitAgent" + c.file); }
    }
}

TEST_F(UpdateRecordTest, PreflightFlagIsReadUnderTheCurrentRootOnly) {
    EXPECT_FALSE(ReadPreflightCheckComplete());  // no update
    Record().keyId = L"u1";
    Record().legacyUpgradeDetected = true;
    fake::SetRegistryDword(LegacyUpdates() + L"u1\\PreflightCheckComplete", 1);
    EXPECT_FALSE(ReadPreflightCheckComplete());
    fake::SetRegistryDword(CurrentUpdates() + L"u1\\PreflightCheckComplete", 1);
    EXPECT_TRUE(ReadPreflightCheckComplete());
}

// Start-up settings: parsed up to their type's limits, else the default with a line.
TEST_F(UpdateRecordTest, RetrySettingsParseOrKeepTheDefault) {
    struct Row { const wchar_t *max, *wait; int n; std::uint32_t ms; const wchar_t* line; };
    // clang-format off
    const Row rows[] = {
        {nullptr, nullptr, 2, 300000, nullptr},
        {L"-1", L"4294967295", -1, 4294967295u, nullptr},
        {L"three", nullptr, 2, 300000,
         L"MAXDOWNLOADANDUPGRADERETRY value 'three', using the default 2"},
        {L"2147483648", L"-5", 2, 300000, L"RetryWaitPeriod value '-5', using the default 300000"},
        {nullptr, L"4294967296", 2, 300000,
         L"RetryWaitPeriod value '4294967296', using the default 300000"}};
    // clang-format on
    for (const Row& c : rows) {
        SCOPED_TRACE(c.max ? c.max : L"-");
        Again();
        if (c.max) fake::SetRegistryString(kMaxRetry, c.max);
        if (c.wait) fake::SetRegistryString(CurrentUpdates() + L"RetryWaitPeriod", c.wait);
        ReadRetrySettings();
        EXPECT_EQ(Record().maxRetry, c.n);
        EXPECT_EQ(Record().retryWaitMs, c.ms);
        EXPECT_EQ(Logged(L"ReadRetrySettings"), c.line != nullptr);
        EXPECT_TRUE(!c.line || LoggedLine(L"ReadRetrySettings: invalid " + Text(c.line)));
    }
    Again();  // the policy before the setting (how each is read is the policy reader's)
    fake::SetRegistryDword(kPolicy + L"RetryWaitPeriod", 1000);
    fake::SetRegistryString(CurrentUpdates() + L"RetryWaitPeriod", L"9");
    ReadRetrySettings();
    EXPECT_EQ(Record().retryWaitMs, 1000u);
}

TEST_F(UpdateRecordTest, RunReadsRetrySettingsOnlyPastTheMutex) {
    fake::SetRegistryString(kMaxRetry, L"x");
    Platform().mutexes[kSingleInstanceMutexName] = {};
    EXPECT_EQ(RunTool(), -3);
    EXPECT_FALSE(Logged(L"ReadRetrySettings"));
    Platform().mutexes.clear();
    fake::SetRegistryString(kMaxRetry, L"7");
    EXPECT_EQ(RunTool(), -1);
    EXPECT_EQ(Record().maxRetry, 7);
}

}  // namespace
