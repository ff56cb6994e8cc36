#include "report/telemetry.h"

#include <json/json.h>

#include <optional>

#include "state/registry.h"
#include "state/update_record.h"
#include "test_support.h"

namespace {

const std::wstring kFile = L"C:\\logs\\updatetool\\UpdateToolTelemetryData.json";

class TelemetryTest : public ToolTest {
protected:
    void SetUp() override {
        Platform().folders.insert(L"C:\\logs");
        fake::SetRegistryString(CurrentProductRoot() + L"\\InstallLogsDir", L"C:\\logs");
        UpdateRecord& r = Record();
        r.keyId = L"{9F1C}";
        r.agent = L"OTHER";
        r.fileName = L"C:\\ws\\agent.msi";
        r.version = L"8.13.0";
        r.state = update_state::kDone;
        r.retry = 2;
        r.result = L"OK";
        Platform().utcSeconds = 1772460189;
    }
};

TEST_F(TelemetryTest, EntryHoldsTheRecordAndReplacesUnpairedSurrogates) {
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    EXPECT_EQ(Json::writeString(compact, TelemetryEntry(1772460189)),
              R"({"attempt":2,"fileName":"C:\\ws\\agent.msi","result":"OK","status":"DONE",)"
              R"("timestamp":1772460189,"type":"OTHER","updatedGUID":"{9F1C}",)"
              R"("version":"8.13.0"})");
    Record().installedVersion = L"8.12.0";
    Record().errorCode = L"KESCLIENT_WRONG_CHECKSUM_ERROR";
    Record().errorDesc = L"caf\u00e9";
    const Json::Value entry = TelemetryEntry(0);
    EXPECT_EQ(entry.getMemberNames().size(), 11u);
    EXPECT_EQ(entry["fromVersion"].asString() + entry["errorCode"].asString() +
                  entry["errorDescription"].asString(),
              "8.12.0KESCLIENT_WRONG_CHECKSUM_ERRORcaf\xC3\xA9");
    const std::pair<std::wstring, std::string> texts[] = {{{L'8', 0xD800}, "8\xEF\xBF\xBD"},
        {{0xDC00, L'a'}, "\xEF\xBF\xBD" "a"}, {{0xDBFF, L'x'}, "\xEF\xBF\xBD" "x"}};
    for (const auto& [text, utf8] : texts) {
        Record().version = text;
        EXPECT_EQ(TelemetryEntry(0)["version"].asString(), utf8);
    }
}

// What stands in the file decides: appended to (comments kept), replaced by a document that parses
// again, or left alone when it is another's shape.
TEST_F(TelemetryTest, DocumentIsExtendedReplacedOrLeftAlone) {
    struct Row { std::optional<std::string> was; unsigned n; std::wstring line; const char* in; };
    const std::wstring missing = L"Json file - " + kFile + L" , doesn't exist\r\n";
    const std::wstring loaded = L"Loading from json file " + kFile + L" completed\r\n";
    const std::wstring refused = L"Failed to save to json file - " + kFile + L" (";
    const std::string cut = "{\"updateTool\": [" + std::string(4000, 'x');
    // n: entries afterwards; 0: refused, the file left as it was
    // clang-format off
    const Row rows[] = {
        {std::nullopt, 1, missing, "\"result\" : \"OK\""},
        {R"({"collector": {"sent": 3}, "updateTool": [{"r": 0}]})", 2, loaded, "\"sent\" : 3"},
        {"{\"a\": 1 // note\n}", 1, loaded, "// note"},
        {cut, 2, missing, "\"updatedGUID\" : \"{9F1C}\""},  // with what the parser kept
        {std::string(100000, '[') + std::string(100000, ']'), 1, missing, nullptr},  // too deep
        {"{\"a\": 1 /* cut \"{/", 1, missing, nullptr},  // cut in a comment
        {R"({"updateTool": 5})", 0, refused, nullptr},
        {"[1, 2]", 0, refused, nullptr}};
    // clang-format on
    for (const Row& c : rows) {
        SCOPED_TRACE(c.was.value_or("none").substr(0, 20));
        StartLog();
        Platform().files.erase(kFile);
        if (c.was) Platform().files[kFile] = {c.was->begin(), c.was->end()};
        EXPECT_EQ(Util_UpdateDataForTelemetry(), c.n > 0);
        EXPECT_TRUE(Logged(L"Util_UpdateDataForTelemetry: " + c.line)) << LogText();
        const auto& bytes = Platform().files.at(kFile);
        const std::string text(bytes.begin(), bytes.end());
        if (c.in) { EXPECT_NE(text.find(c.in), std::string::npos) << text; }
        if (c.was) { EXPECT_GE(text.size(), c.was->size()); }  // written over, not truncated
        if (!c.n) { EXPECT_EQ(text, *c.was); }  // another program's file: left byte for byte
        if (!c.n) continue;
        Json::Value root;
        std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, nullptr));
        EXPECT_EQ(root["updateTool"].size(), c.n);
        EXPECT_TRUE(LoggedLine(L"Util_UpdateDataForTelemetry: Saving to json file - " + kFile +
                               L" completed"));
    }
}

TEST_F(TelemetryTest, LockedFileMissingUpdateAndAFolderEndingInABackslash) {
    Platform().folders.insert(L"C:\\logs\\updatetool");
    Platform().locked.insert(kFile);
    EXPECT_FALSE(Util_UpdateDataForTelemetry());
    EXPECT_TRUE(LoggedLine(L"Util_UpdateDataForTelemetry: Failed to save to json file - " + kFile));
    Record().keyId.clear();
    EXPECT_FALSE(Util_UpdateDataForTelemetry());
    EXPECT_TRUE(LoggedLine(L"Util_UpdateDataForTelemetry: UpdateID empty"));
    fake::SetRegistryString(CurrentProductRoot() + L"\\InstallLogsDir", L"C:\\logs\\");
    EXPECT_EQ(TelemetryFilePath(), L"C:\\logs\\\\updatetool\\UpdateToolTelemetryData.json");
}

}  // namespace
