#include <algorithm>
#include <cwctype>

#include "fake_content_client.h"
#include "fake_platform.h"
#include "platform/installer_database.h"
#include "platform/process.h"
#include "platform/system_info.h"

namespace fake {

PlatformState& State() {
    static PlatformState state;
    return state;
}

void Reset() {
    State() = PlatformState{};
    ContentClient() = ContentClientState{};
    auto& t = State().now.tm;
    t.tm_year = 126, t.tm_mon = 2, t.tm_mday = 2, t.tm_hour = 14, t.tm_min = 3, t.tm_sec = 9;
}

std::wstring FileText(const std::wstring& path) {
    auto it = State().files.find(path);
    if (it == State().files.end()) return {};
    const auto& b = it->second;
    const bool bom = b.size() >= 2 && b[0] == 0xFF && b[1] == 0xFE;
    return core::WideFromUtf16Bytes({b.begin() + (bom ? 2 : 0), b.end()});
}

}  // namespace fake

namespace platform {

std::uint32_t LastError() { return fake::State().lastError; }
void SetLastError(std::uint32_t error) { fake::State().lastError = error; }

std::wstring SystemMessage(std::uint32_t error) {
    switch (error) {
        case 2: return L"The system cannot find the file specified.";
        case 3: return L"The system cannot find the path specified.";
        case 5: case 0x80070005: return L"Access is denied.";
        case 32: return L"The process cannot access the file because it is being used by another process.";
        case 1603: return L"Fatal error during installation.";
        case 1619: return L"This installation package could not be opened.";
        default: return L"";
    }
}

std::wstring ProgramPath(std::uint32_t& error) {
    error = fake::State().programPathError;
    return error ? std::wstring() : fake::State().programPath;
}

std::optional<FileVersion> ReadFileVersion(const std::wstring&) { return fake::State().fileVersion; }

InstanceMutex CreateNamedMutexHeldForLife(const std::wstring& name) {
    auto& s = fake::State();
    if (s.deniedMutexes.count(name)) return {s.lastError = status::kAccessDenied, {}};
    const auto [mutex, created] = s.mutexes.try_emplace(name, ObjectOwner{OwnerKind::kThisAccount, L""});
    s.lastError = created ? status::kSuccess : status::kAlreadyExists;
    return {s.lastError, created ? ObjectOwner{} : mutex->second};
}

bool RestrictDllSearch() {
    auto& s = fake::State();
    if (s.dllSearchError) s.lastError = s.dllSearchError;
    return s.dllSearchRestricted = !s.dllSearchError;
}

std::wstring CommandLine() { return fake::State().commandLine; }
void WriteStdout(const std::wstring& text) { fake::State().console += text; }

bool EqualsIgnoreCase(const std::wstring& a, const std::wstring& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](wchar_t x, wchar_t y) {
        return std::towlower(std::wint_t(x)) == std::towlower(std::wint_t(y));
    });
}

LocalTime LocalNow() { return fake::State().now; }
std::int64_t UtcSecondsNow() { return fake::State().utcSeconds; }

void SleepMilliseconds(std::uint32_t milliseconds) {
    fake::State().sleeps.push_back(milliseconds);
    fake::State().utcSeconds += milliseconds / 1000;
}

RestartOutcome RestartMachine() {
    ++fake::State().restartRequests;
    return fake::State().restartOutcome;
}

std::uint16_t NativeProcessorArchitecture() { return fake::State().nativeArchitecture; }

ProcessRun RunProcessAndWait(const std::wstring& commandLine, const std::wstring& heldFile) {
    auto& s = fake::State();
    if (!heldFile.empty() && s.locked.count(heldFile)) return {ProcessOutcome::kHoldFailed, 0, 32};
    if (!heldFile.empty() && !s.files.count(heldFile)) return {ProcessOutcome::kHoldFailed, 0, 2};
    s.processesRun.push_back(commandLine);
    s.heldFiles.push_back(heldFile);
    fake::PlatformState::ScriptedProcess next;
    if (!s.processScript.empty()) next = s.processScript.front(), s.processScript.pop_front();
    if (next.createError) return {ProcessOutcome::kCreateFailed, 0, next.createError};
    if (next.exitCodeError) return {ProcessOutcome::kExitCodeFailed, 0, next.exitCodeError};
    return {ProcessOutcome::kExited, next.exitCode, 0};
}

std::uint32_t FirstRelatedProduct(const std::wstring& upgradeCode, std::wstring& productCode) {
    const auto& products = fake::State().installedProducts;
    const auto it = products.find(upgradeCode);
    productCode = it == products.end() ? L"" : it->second.productCode;
    return it == products.end() ? 259 : status::kSuccess;  // ERROR_NO_MORE_ITEMS
}

std::uint32_t ProductVersionString(const std::wstring& productCode, std::wstring& version) {
    version.clear();
    for (const auto& [upgradeCode, product] : fake::State().installedProducts) {
        if (!EqualsIgnoreCase(product.productCode, productCode)) continue;
        if (!product.infoStatus) version = product.versionString;
        return product.infoStatus;
    }
    return 1605;  // ERROR_UNKNOWN_PRODUCT
}

ComResult ComInitializeMultithreaded() {
    ++fake::State().comInitializeCalls;
    return fake::State().comInitializeResult;
}

void ComUninitialize() { ++fake::State().comUninitializeCalls; }

UpdateInstallerBusy QueryUpdateInstallerBusy() {
    auto& s = fake::State();
    ++s.updateInstallerQueries;
    const int inits = ComFailed(s.comInitializeResult) ? 0 : s.comInitializeCalls;
    if (inits <= s.comUninitializeCalls) return {static_cast<ComResult>(0x800401F0u), 0, false};
    UpdateInstallerBusy answer;
    if (!s.updateInstallerScript.empty())
        answer = s.updateInstallerScript.front(), s.updateInstallerScript.pop_front();
    // As the adapter does: get_IsBusy is only asked of a created instance.
    if (ComFailed(answer.createResult)) answer.isBusyResult = 0;
    answer.busy = answer.busy && !ComFailed(answer.createResult) && !ComFailed(answer.isBusyResult);
    return answer;
}

}  // namespace platform
