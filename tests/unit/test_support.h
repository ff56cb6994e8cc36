#pragma once
// Common ground for native tests: a fresh fake platform and a tool log per test, undone afterwards.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "app/run_log.h"
#include "download/workspace.h"
#include "fake_platform.h"
#include "log/tool_log.h"
#include "state/update_record.h"

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

    fake::PlatformState& Platform() { return fake::State(); }

private:
    fake::FakePlatformScope scope_;
    std::unique_ptr<ToolLog> log_;
};
