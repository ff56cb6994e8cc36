#include <objbase.h>
#include <windows.h>
#include <wuapi.h>

#include "platform/win32/handles.h"
#include "platform/windows_update.h"

namespace platform {
namespace {

// The Windows Update Agent's published identifiers, spelled out here so that no import library
// has to provide them.
constexpr CLSID kClsidUpdateInstaller = {
    0xD2E0FE7F, 0xD23E, 0x48E1, {0x93, 0xC0, 0x6F, 0xA8, 0xCC, 0x34, 0x64, 0x74}};
constexpr IID kIidUpdateInstaller = {
    0x7B929C68, 0xCCDC, 0x4226, {0x96, 0xB1, 0x87, 0x24, 0x60, 0x0B, 0x54, 0xC2}};

}  // namespace

ComResult ComInitializeMultithreaded() {
    return static_cast<ComResult>(::CoInitializeEx(nullptr, COINIT_MULTITHREADED));
}

void ComUninitialize() {
    ::CoUninitialize();
}

UpdateInstallerBusy QueryUpdateInstallerBusy() {
    UpdateInstallerBusy answer;
    win32::UniqueComInterface<IUpdateInstaller> installer;
    answer.createResult = static_cast<ComResult>(
        ::CoCreateInstance(kClsidUpdateInstaller, nullptr, CLSCTX_INPROC_SERVER,
                           kIidUpdateInstaller, reinterpret_cast<void**>(installer.put())));
    if (ComFailed(answer.createResult)) return answer;
    if (!installer) {
        // A server that reports success without an instance is treated as unreachable.
        answer.createResult = static_cast<ComResult>(E_POINTER);
        return answer;
    }
    VARIANT_BOOL busy = VARIANT_FALSE;
    answer.isBusyResult = static_cast<ComResult>(installer.get()->get_IsBusy(&busy));
    answer.busy = !ComFailed(answer.isBusyResult) && busy != VARIANT_FALSE;
    return answer;
}

}  // namespace platform
