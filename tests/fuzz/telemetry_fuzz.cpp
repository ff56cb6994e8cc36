// The telemetry file is shared with other components, so the tool reads whatever it finds there.
// Arbitrary bytes as the existing file: the tool must either append its entry to a document it
// understands, keeping the rest as read, or leave a document of another shape untouched.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "entry_name.h"  // the content client's UTF-8 check
#include "fake_platform.h"
#include "fuzz_check.h"
#include "report/telemetry.h"
#include "state/update_record.h"

namespace {

constexpr std::string_view kHistory = "updateTool";
constexpr const wchar_t* kLogsRoot = L"C:\\ProgramData\\Quorvane\\Logs";
constexpr const wchar_t* kKeyId = L"{2F1B7C1E-0000-4000-8000-00000000F022}";

// Read as the tool reads it; nullopt when the text does not parse.
std::optional<Json::Value> Parse(const std::vector<std::uint8_t>& bytes) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const char* begin = reinterpret_cast<const char*>(bytes.data());
    Json::Value root;
    Json::String errors;
    try {
        if (!reader->parse(begin, begin + bytes.size(), &root, &errors)) return std::nullopt;
    } catch (const Json::Exception&) {
        return std::nullopt;  // nested past the reader's limit, as the tool treats it
    }
    return root;
}

// What the tool can append to: an object (or nothing) whose "updateTool" is an array or absent.
bool IsAppendable(const Json::Value& root) {
    if (root.isNull()) return true;
    if (!root.isObject()) return false;
    const Json::Value* history = root.find(kHistory.data(), kHistory.data() + kHistory.size());
    return history == nullptr || history->isNull() || history->isArray();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fake::Reset();
    fake::SetRegistryString(L"HKLM\\Software\\Quorvane\\Lumenar\\InstallLogsDir", kLogsRoot);
    fake::State().folders.insert(L"C:\\ProgramData");
    fake::State().folders.insert(L"C:\\ProgramData\\Quorvane");
    fake::State().folders.insert(kLogsRoot);
    fake::State().folders.insert(std::wstring(kLogsRoot) + L"\\updatetool");
    ResetUpdateRecordForTesting();
    UpdateRecord& record = ActiveUpdateRecord();
    record.keyId = kKeyId;
    record.agent = L"OREL";
    record.version = L"8.13.0.12345";

    const std::wstring path = TelemetryFilePath();
    const std::vector<std::uint8_t> before(data, data + size);
    fake::State().files[path] = before;

    const bool written = Util_UpdateDataForTelemetry();
    const std::vector<std::uint8_t>& after = fake::State().files[path];
    const std::optional<Json::Value> old = size == 0 ? Json::Value() : Parse(before);

    if (old && IsAppendable(*old)) FUZZ_CHECK(written);
    if (!written) {
        // A document of another shape belongs to someone else.
        FUZZ_CHECK(after == before);
        return 0;
    }
    // The new text is written over the old from the start (the file is not truncated).
    FUZZ_CHECK(after.size() >= before.size());
    const std::optional<Json::Value> now = Parse(after);
    FUZZ_CHECK(now && now->isObject() && (*now)["updateTool"].isArray());
    const Json::Value& history = (*now)["updateTool"];
    FUZZ_CHECK(!history.empty());
    FUZZ_CHECK(history[history.size() - 1]["updatedGUID"].asString() == "{2F1B7C1E-0000-4000-8000-00000000F022}");
    // The history grew by one and everything else is still there. Only checked for UTF-8 files:
    // the JSON writer replaces invalid sequences, so such a member comes back renamed (reported).
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (old && old->isObject() && kesclient::IsValidUtf8(text)) {
        const Json::Value* oldHistory = old->find(kHistory.data(), kHistory.data() + kHistory.size());
        const Json::ArrayIndex oldCount =
            oldHistory && oldHistory->isArray() ? oldHistory->size() : 0;
        FUZZ_CHECK(history.size() == oldCount + 1);
        for (const std::string& name : old->getMemberNames()) {
            FUZZ_CHECK(now->isMember(name));
            if (name != "updateTool") FUZZ_CHECK((*now)[name] == (*old)[name]);
        }
    }
    return 0;
}
