#pragma once
// The tool's own per-run log. One ToolLog exists for the whole process, created before the entry
// point and finished after it (app/main.cpp). Each line goes to standard output and to
//   <logs root>\updatetool\Quorvane_Agent_Update_YYYYMMDDhhmmss.log
// (the folder as log/log_folder.h chooses it), a UTF-16LE file with a byte-order mark and CR LF
// line ends. The whole file is rewritten from memory on every line, so it is complete after each
// line and a locked file catches up later.
#include <cstdarg>
#include <ctime>
#include <mutex>
#include <string>

#include "core/format.h"

class ToolLog {
public:
    // Becomes the log that Log() writes to, asks chooseFolder for its folder, creates it, and writes
    // the begin banner and the version line.
    explicit ToolLog(std::wstring (*chooseFolder)());
    // Writes the end banner and hands Log() back to the log that was current before.
    ~ToolLog();
    ToolLog(const ToolLog&) = delete;
    ToolLog& operator=(const ToolLog&) = delete;

    // Appends one line. Never throws for I/O failures.
    void Log(const std::wstring& message);

    const std::wstring& path() const { return path_; }
    std::wstring text() const;

    static ToolLog* Current();

private:
    mutable std::mutex mutex_;  // the content client may call back from a thread of its own
    std::wstring path_;
    std::wstring text_;
    ToolLog* previous_;
};

// One line through the current tool log (console only when there is none).
void Log(const std::wstring& message);

template <typename... Args>
void LogF(std::wstring_view pattern, const Args&... args) {
    Log(core::Format(pattern, args...));
}

// Date part "%04d%c%02d%c%02d" when dateSeparator is set, time part "%02d%c%02d%c%02d" when
// timeSeparator is set (after a blank if there is a date), "%c%03d" milliseconds when
// millisecondSeparator is set. A zero separator leaves its part out.
std::wstring FormatTimestamp(const std::tm& time, wchar_t dateSeparator, wchar_t timeSeparator,
                             wchar_t millisecondSeparator, int milliseconds);

// "Quorvane_Agent_Update_YYYYMMDDhhmmss.log" for the given local time.
std::wstring ToolLogFileName(const std::tm& time);

// major.minor.build.revision of a module's fixed file version; empty when it has none.
std::wstring FileVersionText(const std::wstring& modulePath);

// The content client's log callback: level 0..3 selects "[DEBUG] ", "[INFO] ", "[WARNING] ",
// "[ERROR] "; format is printf-style UTF-8.
void ToolLogLibraryCallback(int level, const char* format, std::va_list args);
