#include "platform/content_client.h"

#include <windows.h>

#include <optional>

#include "core/format.h"
#include "core/text.h"

namespace platform {
namespace {

struct Loaded {
    ContentClient client;
    std::wstring error;
    bool ok = false;
};

template <typename Fn>
bool Bind(HMODULE module, int ordinal, Fn& out, std::wstring& error) {
    FARPROC proc = ::GetProcAddress(module, MAKEINTRESOURCEA(ordinal));
    if (proc == nullptr) {
        error = core::Format(L"kesclient.dll has no function with ordinal %d (error %u)", ordinal,
                             static_cast<unsigned>(::GetLastError()));
        return false;
    }
    out = reinterpret_cast<Fn>(reinterpret_cast<void*>(proc));
    return true;
}

Loaded LoadOnce() {
    Loaded loaded;
    wchar_t self[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, length);
    path = path.substr(0, path.rfind(L'\\') + 1) + L"kesclient.dll";
    // The program's own folder and System32 only: a DLL planted on PATH or in the current folder
    // must never be loaded into an elevated process.
    HMODULE module = ::LoadLibraryExW(
        path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (module == nullptr) {
        const DWORD error = ::GetLastError();
        loaded.error = core::Format(L"cannot load %s (error %u)", path, static_cast<unsigned>(error));
        return loaded;
    }
    // The module stays loaded for the life of the process.
    ContentClient& c = loaded.client;
    loaded.ok = Bind(module, KESCLIENT_ORDINAL_RUN_DOWNLOADS, c.runDownloads, loaded.error) &&
                Bind(module, KESCLIENT_ORDINAL_CREATE_DOWNLOAD, c.createDownload, loaded.error) &&
                Bind(module, KESCLIENT_ORDINAL_RELEASE_DOWNLOAD, c.releaseDownload, loaded.error) &&
                Bind(module, KESCLIENT_ORDINAL_SET_LOG_CALLBACK, c.setLogCallback, loaded.error) &&
                Bind(module, KESCLIENT_ORDINAL_USE_PEM_FILE, c.usePemFile, loaded.error) &&
                Bind(module, KESCLIENT_ORDINAL_USE_SYSTEM_STORE, c.useSystemStore, loaded.error);
    return loaded;
}

}  // namespace

const ContentClient* LoadContentClient(std::wstring& error) {
    static const Loaded loaded = LoadOnce();
    error = loaded.error;
    return loaded.ok ? &loaded.client : nullptr;
}

}  // namespace platform
