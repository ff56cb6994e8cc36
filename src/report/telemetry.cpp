#include "report/telemetry.h"

#include <json/json.h>

#include <memory>

#include "core/core_exception.h"
#include "core/text.h"
#include "download/workspace.h"
#include "log/log_folder.h"
#include "log/tool_log.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/system.h"
#include "state/update_record.h"

namespace {

constexpr const wchar_t* kFunction = L"Util_UpdateDataForTelemetry";
constexpr std::uint32_t kErrorInvalidData = 13;

// The record must not be lost to one bad character: an unpaired surrogate from the registry goes
// out as U+FFFD, as the system's own UTF-8 conversion writes it.
Json::String Utf8(const std::wstring& text) {
    std::wstring sound(text);
    for (std::size_t i = 0; i < sound.size(); ++i) {
        const bool high = sound[i] >= 0xD800 && sound[i] <= 0xDBFF;
        const bool low = sound[i] >= 0xDC00 && sound[i] <= 0xDFFF;
        if (high && i + 1 < sound.size() && sound[i + 1] >= 0xDC00 && sound[i + 1] <= 0xDFFF)
            ++i;  // a pair: one character
        else if (high || low)
            sound[i] = 0xFFFD;
    }
    return core::Utf8FromWide(sound);
}

// Loads the existing document into root. False when the file could not be opened, mapped or
// parsed; after a parse failure root keeps what the parser made of it.
bool LoadDocument(const std::wstring& path, Json::Value& root) {
    bool parsed = false;
    const bool mapped = platform::WithFileMappedCreatingIfMissing(
        path, [&root, &parsed](const std::uint8_t* data, std::size_t size) {
            Json::CharReaderBuilder builder;
            builder["collectComments"] = true;
            std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
            const char* begin = reinterpret_cast<const char*>(data);
            Json::String errors;
            try {
                parsed = reader->parse(begin, begin + size, &root, &errors);
            } catch (const Json::Exception&) {
                // Nested past the reader's limit: as unreadable as any other broken document.
                root = Json::Value();
                parsed = false;
            }
        });
    if (mapped && !parsed) platform::SetLastError(kErrorInvalidData);
    return mapped && parsed;
}

}  // namespace

std::wstring TelemetryFilePath() {
    return LogsRoot(&GetWorkspace) + L"\\updatetool" + L"\\UpdateToolTelemetryData.json";
}

Json::Value TelemetryEntry(long long timestamp) {
    const UpdateRecord& record = ActiveUpdateRecord();
    Json::Value entry(Json::objectValue);
    entry["updatedGUID"] = Utf8(record.keyId);
    entry["type"] = Utf8(record.agent);
    entry["fileName"] = Utf8(record.fileName);
    entry["version"] = Utf8(record.version);
    entry["timestamp"] = Json::Int64{timestamp};
    entry["status"] = Utf8(stateStr(record.state));
    entry["attempt"] = record.retry;
    entry["result"] = Utf8(record.result);
    if (!record.installedVersion.empty()) entry["fromVersion"] = Utf8(record.installedVersion);
    if (!record.errorCode.empty()) entry["errorCode"] = Utf8(record.errorCode);
    if (!record.errorDesc.empty()) entry["errorDescription"] = Utf8(record.errorDesc);
    return entry;
}

bool Util_UpdateDataForTelemetry() {
    const UpdateRecord& record = ActiveUpdateRecord();
    if (record.keyId.empty()) {
        LogF(L"%s: UpdateID empty", kFunction);
        return false;
    }
    const long long timestamp = platform::UtcSecondsNow();
    platform::CreateFolder(LogsRoot(&GetWorkspace) + L"\\updatetool");  // an existing folder is the normal case
    const std::wstring path = TelemetryFilePath();

    Json::Value root;
    const bool loaded = LoadDocument(path, root);
    if (loaded)
        LogF(L"%s: Loading from json file %s completed", kFunction, path);
    else
        LogF(L"%s: Json file - %s , doesn't exist", kFunction, path);

    std::string text;
    try {
        root["updateTool"].append(TelemetryEntry(timestamp));
        Json::StreamWriterBuilder writer;
        // A comment the parser was cut off in would be written back unterminated, and the file
        // would never parse again: what a failed parse kept is written without comments.
        if (!loaded) writer["commentStyle"] = "None";
        text = Json::writeString(writer, root);
    } catch (const Json::LogicError& error) {
        // A document of another shape (a top level that is no object, an "updateTool" that is no
        // array) belongs to someone else: leave it as it is rather than overwrite it.
        LogF(L"%s: Failed to save to json file - %s (%s)", kFunction, path,
             core::WideFromUtf8(error.what()));
        return false;
    }
    if (!platform::WriteFileFromStart(path, std::vector<std::uint8_t>(text.begin(), text.end()))) {
        LogF(L"%s: Failed to save to json file - %s", kFunction, path);
        return false;
    }
    LogF(L"%s: Saving to json file - %s completed", kFunction, path);
    return true;
}
