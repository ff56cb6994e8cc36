#pragma once
// Owners for the Windows handle kinds used by the adapters, one alias per "no handle" convention.
#include <windows.h>

#include "core/unique_handle.h"

namespace platform::win32 {

struct RegistryKeyTraits {
    using Type = HKEY;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type key) noexcept { ::RegCloseKey(key); }
};
using UniqueRegistryKey = core::UniqueHandle<RegistryKeyTraits>;

// Kernel objects whose "none" is null: processes, threads, mutexes, mappings.
struct KernelHandleTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type handle) noexcept { ::CloseHandle(handle); }
};
using UniqueKernelHandle = core::UniqueHandle<KernelHandleTraits>;

// CreateFileW's "none" is INVALID_HANDLE_VALUE.
struct FileHandleTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { ::CloseHandle(handle); }
};
using UniqueFileHandle = core::UniqueHandle<FileHandleTraits>;

struct FindHandleTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { ::FindClose(handle); }
};
using UniqueFindHandle = core::UniqueHandle<FindHandleTraits>;

// Memory the system allocated for us with LocalAlloc (security descriptors, SID texts).
struct LocalFreeTraits {
    using Type = HLOCAL;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type memory) noexcept { ::LocalFree(memory); }
};
using UniqueLocal = core::UniqueHandle<LocalFreeTraits>;

// A COM interface pointer: its "none" is null, and giving it up is Release.
template <typename Interface>
struct ComInterfaceTraits {
    using Type = Interface*;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type pointer) noexcept { pointer->Release(); }
};
template <typename Interface>
using UniqueComInterface = core::UniqueHandle<ComInterfaceTraits<Interface>>;

}  // namespace platform::win32
