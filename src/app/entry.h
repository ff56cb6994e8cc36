#pragma once
// One run of the tool from the kill switch to the final result line. The program entry (main.cpp)
// only hands over to RunTool, so that the whole sequence runs in native tests against fakes.
#include "core/run_result.h"

// The name of the single-instance mutex, shared by every logon session.
inline constexpr const wchar_t* kSingleInstanceMutexName =
    L"Global\\5E3B0F47-2D91-4A6C-9B18-C47E2A90D3F5";

// Five minutes: how long a run waits while a restart the tool asked for has not happened.
inline constexpr std::uint32_t kPendingRebootWaitMinutes = 5;

RunResult RunTool();

// Waits once, five minutes, when either root holds \Agent\UpdateStatusVolatile\NeedReboot.
void WaitForPendingToolReboot();
