#pragma once
// Common ground for native tests: a fresh fake platform and a tool log per test, undone afterwards,
// and the set-up several files share (the product roots, a valid update key, log searches).
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/run_log.h"
#include "core/text.h"
#include "download/workspace.h"
#include "fake_platform.h"
#include "log/tool_log.h"
#include "state/registry.h"
#include "state/update_record.h"

// Where the service announces updates, under either product's root.
inline std::wstring CurrentUpdates() { return CurrentProductRoot() + L"\\Agent\\Update\\"; }
inline std::wstring LegacyUpdates() { return LegacyProductRoot() + L"\\Agent\\Update\\"; }

// A REG_MULTI_SZ value; NULs in `text` separate its strings.
inline void SetMultiString(const std::wstring& path, std::wstring text) {
    text.push_back(L'\0');  // the terminating empty string; the writer adds the last NUL
    fake::SetRegistryValue(path, {platform::regtype::kMultiSz, core::Utf16BytesFromWide(text, true)});
}

// An update key that passes the record's required checks, with the values given.
inline void ArrangeUpdate(const std::wstring& updates, const std::wstring& id,
                          const std::vector<std::pair<std::wstring, std::wstring>>& values = {}) {
    const std::wstring key = updates + id + L"\\";
    fake::SetRegistryString(key + L"AGENT", L"OTHER");
    SetMultiString(key + L"URL", L"https://a");
    for (const auto& [name, text] : values) fake::SetRegistryString(key + name, text);
}

class ToolTest : public ::testing::Test {
protected:
    ToolTest() {
        ResetWorkspaceForTesting();
        ResetUpdateRecordForTesting();
        StartLog();
    }
    ~ToolTest() override {
        log_.reset();
        ResetWorkspaceForTesting();
        ResetUpdateRecordForTesting();
    }

    // Starts the run's log again, as a new run would (after arranging the registry it reads).
    ToolLog& StartLog() {
        log_.reset();  // one log at a time, as in the tool
        log_ = std::make_unique<ToolLog>(&RunLogFolder);
        return *log_;
    }

    // Everything logged so far in this run.
    std::wstring LogText() const { return log_->text(); }
    bool Logged(const std::wstring& fragment) const { return LogText().find(fragment) != std::wstring::npos; }
    // A whole message, as "Function: text" between the timestamp and the line end.
    bool LoggedLine(const std::wstring& message) const { return Logged(L": " + message + L"\r\n"); }
    std::size_t Count(const std::wstring& fragment) const {
        const std::wstring text = LogText();
        std::size_t count = 0;
        for (auto at = text.find(fragment); at != std::wstring::npos; at = text.find(fragment, at + 1)) ++count;
        return count;
    }

    fake::PlatformState& Platform() { return fake::State(); }
    UpdateRecord& Record() { return ActiveUpdateRecord(); }

private:
    fake::FakePlatformScope scope_;
    std::unique_ptr<ToolLog> log_;
};

// For tables whose rows each start from an empty platform and log.
class FreshTest : public ToolTest {
protected:
    void Fresh() {
        scope_.emplace();
        StartLog();
    }

private:
    std::optional<fake::FakePlatformScope> scope_;
};
