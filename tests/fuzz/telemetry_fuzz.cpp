// The telemetry file, shared with other components: the tool appends its entry to a document it
// understands, keeping the rest as read, and leaves a document of another shape untouched.
#include <json/json.h>

#include <optional>
#include <sstream>

#include "entry_name.h"  // the content client's UTF-8 check
#include "fake_platform.h"
#include "fuzz_check.h"
#include "report/telemetry.h"
#include "state/update_record.h"

constexpr std::string_view kKeyId = "{2F1B7C1E-0000-4000-8000-00000000F022}";

// As the tool reads it (comments allowed); nothing when it does not parse or nests too deep.
static std::optional<Json::Value> Parse(const fuzz::Bytes& bytes) {
    std::istringstream stream(std::string(bytes.begin(), bytes.end()));
    Json::Value root;
    try {
        if (Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, nullptr)) return root;
    } catch (const Json::Exception&) {
    }
    return std::nullopt;
}

static Json::Value History(const Json::Value& root) {
    return root.isObject() ? root.get("updateTool", {}) : Json::Value();
}

FUZZ_TARGET {
    fake::Reset();
    fake::SetRegistryString(L"HKLM\\Software\\Quorvane\\Lumenar\\InstallLogsDir", L"C:\\logs");
    fake::State().folders.insert({L"C:\\logs", L"C:\\logs\\updatetool"});
    ResetUpdateRecordForTesting();
    ActiveUpdateRecord().keyId = std::wstring(kKeyId.begin(), kKeyId.end());
    ActiveUpdateRecord().agent = L"OREL";
    ActiveUpdateRecord().version = L"8.13.0.12345";
    const fuzz::Bytes before(data, data + size);
    fake::State().files[TelemetryFilePath()] = before;

    const bool written = Util_UpdateDataForTelemetry();
    const fuzz::Bytes& after = fake::State().files[TelemetryFilePath()];
    const std::optional<Json::Value> old = size == 0 ? Json::Value() : Parse(before);
    // What the tool appends to: nothing, or an object whose history is an array or absent. A
    // document of another shape belongs to someone else, and is left byte for byte.
    const Json::Value oldHistory = old ? History(*old) : Json::Value();
    const bool ours = old && (old->isNull() ||
                              (old->isObject() && (oldHistory.isNull() || oldHistory.isArray())));
    FUZZ_CHECK(written || (!ours && after == before));
    if (!written) return;
    // Written over the old text from the start (not truncated), its history ending with this run.
    const std::optional<Json::Value> now = Parse(after);
    FUZZ_CHECK(after.size() >= before.size() && now && History(*now).isArray());
    const Json::Value history = History(*now);
    FUZZ_CHECK(!history.empty() && history[history.size() - 1]["updatedGUID"].asString() == kKeyId);
    // The history grew by one and everything else is still there. Only checked for UTF-8 files:
    // the JSON writer replaces invalid sequences, so such a member comes back renamed (reported).
    if (!old || !old->isObject() || !kesclient::IsValidUtf8(fuzz::Text(data, size))) return;
    FUZZ_CHECK(history.size() == (oldHistory.isArray() ? oldHistory.size() : 0) + 1);
    for (const std::string& name : old->getMemberNames())
        FUZZ_CHECK(now->isMember(name) && (name == "updateTool" || (*now)[name] == (*old)[name]));
}
