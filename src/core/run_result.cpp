#include "core/run_result.h"

#include <array>

#include "core/format.h"

std::wstring RunResultName(RunResult code) {
    // Indexed by -code.
    static constexpr std::array<const wchar_t*, 14> kNames{
        L"ERR_SUCCESS",
        L"ERR_FAILURE",
        L"ERR_KILLSWITCH",
        L"ERR_DUPLICATE",
        L"ERR_NOAGENT",
        L"ERR_LAUNCH",
        L"ERR_INCOMPATIBLE",
        L"ERR_REBOOT",
        nullptr,
        L"ERR_PREFLIGHTCHECK_OK",
        L"ERR_PREFLIGHTCHECK_FAILED",
        L"ERR_PREFLIGHTCHECK_REBOOT",
        L"ERR_PREFLIGHTCHECK_INSUFFICIENT_DISK",
        L"ERR_PREFLIGHTCHECK_UPDATE_INPROGRESS",
    };
    if (code <= 0 && code >= -13 && kNames[static_cast<std::size_t>(-code)] != nullptr)
        return kNames[static_cast<std::size_t>(-code)];
    return core::Format(L"Update ERR_%d", code);
}
