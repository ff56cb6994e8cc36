#pragma once
// Owners for the Windows handle kinds both binaries use, one alias per "no handle" convention.
// Kinds only one side needs are declared beside its own code on the same template.
#include <windows.h>

#include "common/unique_handle.h"

namespace common {

// Kernel objects whose "none" is null: processes, threads, mutexes, mappings.
struct KernelHandleTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type handle) noexcept { ::CloseHandle(handle); }
};
using UniqueKernelHandle = UniqueHandle<KernelHandleTraits>;

// CreateFileW's "none" is INVALID_HANDLE_VALUE.
struct FileHandleTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { ::CloseHandle(handle); }
};
using UniqueFileHandle = UniqueHandle<FileHandleTraits>;

struct FindHandleTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { ::FindClose(handle); }
};
using UniqueFindHandle = UniqueHandle<FindHandleTraits>;

}  // namespace common
