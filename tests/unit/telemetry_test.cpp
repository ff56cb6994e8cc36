#include "report/telemetry.h"

#include <json/json.h>

#include "state/registry.h"
#include "state/update_record.h"
#include "test_support.h"

namespace {

constexpr const wchar_t* kLogs = L"C:\\logs";
constexpr const wchar_t* kFile = L"C:\\logs\\updatetool\\UpdateToolTelemetryData.json";

class TelemetryTest : public ToolTest {
protected:
    void SetUp() override {
        Platform().folders.insert(kLogs);
        fake::SetRegistryString(CurrentProductRoot() + L"\\InstallLogsDir", kLogs);
        UpdateRecord& record = ActiveUpdateRecord();
        record.keyId = L"{9F1C}";
        record.agent = L"OTHER";
        record.fileName = L"C:\\ws\\agent.msi";
        record.version = L"8.13.0";
        record.state = update_state::kDone;
        record.retry = 2;
        record.result = L"OK";
        Platform().utcSeconds = 1772460189;
    }

    std::string FileText() {
        const auto& bytes = Platform().files.at(kFile);
        return std::string(bytes.begin(), bytes.end());
    }

    Json::Value Document() {
        Json::Value root;
        std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        const std::string text = FileText();
        EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, nullptr)) << text;
        return root;
    }
};

TEST_F(TelemetryTest, FirstRunCreatesTheFileWithOneEntryOfEightMembers) {
    ASSERT_TRUE(Util_UpdateDataForTelemetry());
    EXPECT_TRUE(Logged(std::wstring(L"Util_UpdateDataForTelemetry: Json file - ") + kFile +
                       L" , doesn't exist\r\n"));
    EXPECT_TRUE(Logged(std::wstring(L"Util_UpdateDataForTelemetry: Saving to json file - ") +
                       kFile + L" completed\r\n"));
    const Json::Value entry = Document()["updateTool"][0];
    EXPECT_EQ(entry.getMemberNames().size(), 8u);
    EXPECT_EQ(entry["updatedGUID"].asString(), "{9F1C}");
    EXPECT_EQ(entry["type"].asString(), "OTHER");
    EXPECT_EQ(entry["fileName"].asString(), "C:\\ws\\agent.msi");
    EXPECT_EQ(entry["version"].asString(), "8.13.0");
    EXPECT_EQ(entry["timestamp"].asInt64(), 1772460189);
    EXPECT_EQ(entry["status"].asString(), "DONE");
    EXPECT_EQ(entry["attempt"].asInt(), 2);
    EXPECT_EQ(entry["result"].asString(), "OK");
}

TEST_F(TelemetryTest, OptionalMembersAppearWhenSet) {
    UpdateRecord& record = ActiveUpdateRecord();
    record.installedVersion = L"8.12.0";
    record.errorCode = L"KESCLIENT_WRONG_CHECKSUM_ERROR";
    record.errorDesc = L"caf\u00e9";
    ASSERT_TRUE(Util_UpdateDataForTelemetry());
    const Json::Value entry = Document()["updateTool"][0];
    EXPECT_EQ(entry.getMemberNames().size(), 11u);
    EXPECT_EQ(entry["fromVersion"].asString(), "8.12.0");
    EXPECT_EQ(entry["errorCode"].asString(), "KESCLIENT_WRONG_CHECKSUM_ERROR");
    EXPECT_EQ(entry["errorDescription"].asString(), "caf\xC3\xA9");
}

TEST_F(TelemetryTest, AppendsToWhatIsThereAndKeepsOtherMembers) {
    const std::string before = R"({"collector": {"sent": 3}, "updateTool": [{"result": "FAILURE"}]})";
    Platform().folders.insert(L"C:\\logs\\updatetool");
    Platform().files[kFile] = std::vector<std::uint8_t>(before.begin(), before.end());
    ASSERT_TRUE(Util_UpdateDataForTelemetry());
    EXPECT_TRUE(Logged(std::wstring(L"Loading from json file ") + kFile + L" completed\r\n"));
    const Json::Value root = Document();
    EXPECT_EQ(root["collector"]["sent"].asInt(), 3);
    ASSERT_EQ(root["updateTool"].size(), 2u);
    EXPECT_EQ(root["updateTool"][1]["result"].asString(), "OK");
}

TEST_F(TelemetryTest, CorruptFileIsOverwrittenFromTheStartWithoutTruncation) {
    const std::string corrupt = "{\"updateTool\": [" + std::string(4000, 'x');
    Platform().folders.insert(L"C:\\logs\\updatetool");
    Platform().files[kFile] = std::vector<std::uint8_t>(corrupt.begin(), corrupt.end());
    ASSERT_TRUE(Util_UpdateDataForTelemetry());
    EXPECT_TRUE(Logged(L", doesn't exist\r\n"));
    const std::string text = FileText();
    EXPECT_EQ(text.size(), corrupt.size());  // the old tail stays behind the new document
    EXPECT_EQ(text.substr(text.size() - 10), std::string(10, 'x'));
    EXPECT_NE(text.find("\"updatedGUID\" : \"{9F1C}\""), std::string::npos);
}

// Whatever the broken document was, what replaces it parses again: the next run appends to it.
TEST_F(TelemetryTest, BrokenDocumentsAreReplacedByOneThatParses) {
    Platform().folders.insert(L"C:\\logs\\updatetool");
    for (const std::string& broken : {
             std::string(100000, '[') + std::string(100000, ']'),  // past the reader's nesting limit
             std::string("{\"a\": 1 /* cut \"{/"),  // a comment the parser stopped in
         }) {
        Platform().files[kFile] = std::vector<std::uint8_t>(broken.begin(), broken.end());
        ASSERT_TRUE(Util_UpdateDataForTelemetry());
        EXPECT_TRUE(Logged(L", doesn't exist\r\n"));
        EXPECT_EQ(Document()["updateTool"][0]["updatedGUID"].asString(), "{9F1C}") << broken.substr(0, 20);
    }
}

TEST_F(TelemetryTest, UnpairedSurrogatesGoOutAsReplacementCharacters) {
    ActiveUpdateRecord().version = std::wstring(L"8.13") + static_cast<wchar_t>(0xD800);
    ActiveUpdateRecord().fileName = std::wstring(1, static_cast<wchar_t>(0xDC00)) + L"a.msi";
    ASSERT_TRUE(Util_UpdateDataForTelemetry());
    const Json::Value entry = Document()["updateTool"][0];
    EXPECT_EQ(entry["version"].asString(), "8.13\xEF\xBF\xBD");
    EXPECT_EQ(entry["fileName"].asString(), "\xEF\xBF\xBD" "a.msi");
}

TEST_F(TelemetryTest, ForeignShapesAreLeftAlone) {
    for (const std::string& foreign : {std::string(R"({"updateTool": 5})"), std::string("[1, 2]")}) {
        Platform().folders.insert(L"C:\\logs\\updatetool");
        Platform().files[kFile] = std::vector<std::uint8_t>(foreign.begin(), foreign.end());
        EXPECT_FALSE(Util_UpdateDataForTelemetry()) << foreign;
        EXPECT_EQ(FileText(), foreign);
    }
    EXPECT_TRUE(Logged(L"Util_UpdateDataForTelemetry: Failed to save to json file - "));
}

TEST_F(TelemetryTest, LockedFileAndMissingUpdateAreReported) {
    Platform().folders.insert(L"C:\\logs\\updatetool");
    Platform().locked.insert(kFile);
    EXPECT_FALSE(Util_UpdateDataForTelemetry());
    EXPECT_TRUE(Logged(std::wstring(L"Failed to save to json file - ") + kFile + L"\r\n"));

    ActiveUpdateRecord().keyId.clear();
    EXPECT_FALSE(Util_UpdateDataForTelemetry());
    EXPECT_TRUE(Logged(L"Util_UpdateDataForTelemetry: UpdateID empty\r\n"));
}

TEST_F(TelemetryTest, LogsRootWithATrailingBackslashDoublesIt) {
    fake::SetRegistryString(CurrentProductRoot() + L"\\InstallLogsDir", L"C:\\logs\\");
    EXPECT_EQ(TelemetryFilePath(), L"C:\\logs\\\\updatetool\\UpdateToolTelemetryData.json");
}

}  // namespace
