#pragma once
// Owners for the Windows handle kinds used by the adapters, one alias per "no handle" convention:
// the kinds the content client shares come from common/handles_win.h, the tool's own are here.
#include <windows.h>

#include "common/handles_win.h"
#include "common/unique_handle.h"

namespace platform::win32 {

using common::UniqueFileHandle;
using common::UniqueFindHandle;
using common::UniqueKernelHandle;

struct RegistryKeyTraits {
    using Type = HKEY;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type key) noexcept { ::RegCloseKey(key); }
};
using UniqueRegistryKey = common::UniqueHandle<RegistryKeyTraits>;

// Memory the system allocated for us with LocalAlloc (security descriptors, SID texts).
struct LocalFreeTraits {
    using Type = HLOCAL;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type memory) noexcept { ::LocalFree(memory); }
};
using UniqueLocal = common::UniqueHandle<LocalFreeTraits>;

// A COM interface pointer: its "none" is null, and giving it up is Release.
template <typename Interface>
struct ComInterfaceTraits {
    using Type = Interface*;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type pointer) noexcept { pointer->Release(); }
};
template <typename Interface>
using UniqueComInterface = common::UniqueHandle<ComInterfaceTraits<Interface>>;

}  // namespace platform::win32
