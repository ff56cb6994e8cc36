#include "log/tool_log.h"

#include <atomic>
#include <cstdio>
#include <vector>

#include <fmt/format.h>
#include <fmt/xchar.h>

#include "core/text.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/system.h"

namespace {

std::atomic<ToolLog*> g_current{nullptr};

std::wstring Timestamp() {
    const platform::LocalTime now = platform::LocalNow();
    return FormatTimestamp(now.tm, L'-', L'.', 0, 0);
}

}  // namespace

std::wstring FormatTimestamp(const std::tm& time, wchar_t dateSeparator, wchar_t timeSeparator,
                             wchar_t millisecondSeparator, int milliseconds) {
    std::wstring text;
    if (dateSeparator != 0)
        text += core::Format(L"%04d%c%02d%c%02d", time.tm_year + 1900, dateSeparator,
                             time.tm_mon + 1, dateSeparator, time.tm_mday);
    if (timeSeparator != 0) {
        if (!text.empty()) text += L' ';
        text += core::Format(L"%02d%c%02d%c%02d", time.tm_hour, timeSeparator, time.tm_min,
                             timeSeparator, time.tm_sec);
    }
    if (millisecondSeparator != 0)
        text += core::Format(L"%c%03d", millisecondSeparator, milliseconds);
    return text;
}

std::wstring ToolLogFileName(const std::tm& time) {
    return core::Format(L"Quorvane_Agent_Update_%d%02d%02d%02d%02d%02d.log", time.tm_year + 1900,
                        time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
}

std::wstring FileVersionText(const std::wstring& modulePath) {
    const auto version = platform::ReadFileVersion(modulePath);
    if (!version) return {};
    return fmt::format(L"{}.{}.{}.{}", version->mostSignificant >> 16,
                       version->mostSignificant & 0xFFFF, version->leastSignificant >> 16,
                       version->leastSignificant & 0xFFFF);
}

ToolLog::ToolLog(std::wstring (*chooseFolder)()) : previous_(g_current.exchange(this)) {
    // Chosen once this log is current, so that what the choice logs is in the file too.
    const std::wstring folder = chooseFolder();
    platform::CreateFolder(folder);  // an existing folder is the normal case
    path_ = core::PathJoin(folder, ToolLogFileName(platform::LocalNow().tm));

    Log(L"=== Begin === ");
    std::uint32_t error = 0;
    const std::wstring program = platform::ProgramPath(error);
    if (program.empty())
        LogF(L"WARNING: Unable to read this file version: (%d)", static_cast<int>(error));
    else
        LogF(L"Updatetool Version: %s", FileVersionText(program));
}

ToolLog::~ToolLog() {
    Log(L"=== End ===");
    ToolLog* expected = this;
    g_current.compare_exchange_strong(expected, previous_);
}

ToolLog* ToolLog::Current() { return g_current.load(); }

std::wstring ToolLog::text() const {
    std::lock_guard lock(mutex_);
    return text_;
}

void ToolLog::Log(const std::wstring& message) {
    std::lock_guard lock(mutex_);
    platform::WriteStdout(Timestamp() + L": " + message + L"\n");
    text_ += Timestamp() + L": " + message + L"\r\n";

    std::vector<std::uint8_t> bytes{0xFF, 0xFE};
    const auto body = core::Utf16BytesFromWide(text_, false);
    bytes.insert(bytes.end(), body.begin(), body.end());
    // A failed write is not reported: the text stays in memory and the next line rewrites it all.
    // The thread's last error then tells why the write failed.
    platform::WriteWholeFile(path_, bytes);
}

void Log(const std::wstring& message) {
    if (ToolLog* log = ToolLog::Current()) {
        log->Log(message);
    } else {
        platform::WriteStdout(Timestamp() + L": " + message + L"\n");
    }
}

void ToolLogLibraryCallback(int level, const char* format, std::va_list args) {
    static const wchar_t* const kTags[] = {L"[DEBUG] ", L"[INFO] ", L"[WARNING] ", L"[ERROR] "};
    if (format == nullptr) return;
    std::vector<char> buffer(8192);
    for (;;) {
        std::va_list copy;
        va_copy(copy, args);
        const int needed = std::vsnprintf(buffer.data(), buffer.size(), format, copy);
        va_end(copy);
        if (needed < 0) return;  // a format the C runtime refuses: nothing sensible to log
        if (static_cast<std::size_t>(needed) < buffer.size()) break;
        buffer.resize(buffer.size() * 2);
    }
    // The library's text is not ours to trust: a bad sequence costs one character, not the line.
    const std::wstring text = core::WideFromUtf8Lenient(buffer.data());
    const wchar_t* tag = (level >= 0 && level <= 3) ? kTags[level] : L"";
    Log(tag + text);
}
