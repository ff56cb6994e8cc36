// Drives kesclient.dll the way the tool does, from the command line, for end-to-end tests and
// benchmarks. Loads the DLL from its own folder only and binds the ordinals; prints the library's
// log lines as "[level] message" on stdout; exits with the library's result code.
//
//   kesclient_driver --folder DIR --url URL [--url URL2 ...] [--trust pem:FILE|system|none]
//                    [--pin HEX ...] [--proxy HOST:PORT ...] [--pac URL] [--checksum TEXT]
//                    [--size N] [--no-verify-size] [--payload exe|tar|zip|N] [--id ID]
//                    [--stats]
//                    (--stats: at exit, prints the download's wall time and the process's peak
//                    working set, for benchmarks)
//   kesclient_driver --add-root FILE | --remove-root FILE
//                    (adds or removes a PEM certificate in the machine's Root store, for
//                    tests of the system-store mode; exits 0 on success)
//
// Exit codes of its own: 200 DLL or ordinal missing, 201 bad arguments, 202 store change failed.
#include <windows.h>
// <wincrypt.h> needs <windows.h> first.
#include <wincrypt.h>
// K32GetProcessMemoryInfo lives in kernel32: no psapi library to link.
#include <psapi.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kesclient/kesclient.h"

namespace {

constexpr int kExitNoLibrary = 200;
constexpr int kExitUsage = 201;
constexpr int kExitStore = 202;

std::string Utf8(const wchar_t* text) {
    const int length = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1) return {};
    std::string out(static_cast<std::size_t>(length - 1), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), length, nullptr, nullptr);
    return out;
}

void PrintLogLine(int level, const char* format, va_list args) {
    static const char* const kLevels[] = {"debug", "info", "warning", "error"};
    char line[4096];
    std::vsnprintf(line, sizeof line, format, args);
    std::printf("[%s] %s\n", level >= 0 && level < 4 ? kLevels[level] : "?", line);
    std::fflush(stdout);
}

struct Options {
    std::string folder, id = "driver", pac, checksum, trust = "system";
    std::vector<std::string> urls, pins, proxies;
    long long size = 0;
    int verifySize = 1;
    int payload = KESCLIENT_PAYLOAD_EXE;
    bool stats = false;
};

KesClientString View(const std::string& text) {
    return KesClientString{text.data(), text.size()};
}

struct ListView {
    explicit ListView(const std::vector<std::string>& texts) {
        for (const auto& text : texts) items.push_back(View(text));
    }
    KesClientStringList list() const { return KesClientStringList{items.data(), items.size()}; }
    std::vector<KesClientString> items;
};

// Adds or removes a certificate of a PEM file in the machine's Root store.
int ChangeRoot(const std::wstring& path, bool add) {
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return kExitStore;
    std::string pem(1 << 20, '\0');
    DWORD read = 0;
    const BOOL ok = ::ReadFile(file, pem.data(), static_cast<DWORD>(pem.size()), &read, nullptr);
    ::CloseHandle(file);
    if (!ok) return kExitStore;
    DWORD derSize = 0;
    if (!::CryptStringToBinaryA(pem.data(), read, CRYPT_STRING_BASE64HEADER, nullptr, &derSize,
                                nullptr, nullptr)) {
        return kExitStore;
    }
    std::vector<BYTE> der(derSize);
    ::CryptStringToBinaryA(pem.data(), read, CRYPT_STRING_BASE64HEADER, der.data(), &derSize,
                           nullptr, nullptr);
    HCERTSTORE store =
        ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root");
    if (store == nullptr) return kExitStore;
    PCCERT_CONTEXT certificate =
        ::CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), derSize);
    bool done = false;
    if (certificate != nullptr) {
        if (add) {
            done = ::CertAddCertificateContextToStore(store, certificate,
                                                      CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
        } else {
            PCCERT_CONTEXT found = ::CertFindCertificateInStore(
                store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, certificate, nullptr);
            done =
                found == nullptr || ::CertDeleteCertificateFromStore(found);  // deleting frees it
        }
        ::CertFreeCertificateContext(certificate);
    }
    ::CertCloseStore(store, 0);
    return done ? 0 : kExitStore;
}

int PayloadType(const std::string& text) {
    if (text == "exe") return KESCLIENT_PAYLOAD_EXE;
    if (text == "tar") return KESCLIENT_PAYLOAD_TAR;
    if (text == "zip") return KESCLIENT_PAYLOAD_ZIP;
    return std::atoi(text.c_str());
}

template <typename Fn>
Fn Bind(HMODULE module, int ordinal) {
    return reinterpret_cast<Fn>(
        reinterpret_cast<void*>(::GetProcAddress(module, MAKEINTRESOURCEA(ordinal))));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::wstring flag = argv[i];
        if (flag == L"--no-verify-size") {
            options.verifySize = 0;
            continue;
        }
        if (flag == L"--stats") {
            options.stats = true;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "missing value after %s\n", Utf8(argv[i]).c_str());
            return kExitUsage;
        }
        const std::string value = Utf8(argv[++i]);
        if (flag == L"--add-root" || flag == L"--remove-root")
            return ChangeRoot(argv[i], flag == L"--add-root");
        if (flag == L"--folder")
            options.folder = value;
        else if (flag == L"--url")
            options.urls.push_back(value);
        else if (flag == L"--pin")
            options.pins.push_back(value);
        else if (flag == L"--proxy")
            options.proxies.push_back(value);
        else if (flag == L"--pac")
            options.pac = value;
        else if (flag == L"--checksum")
            options.checksum = value;
        else if (flag == L"--size")
            options.size = std::atoll(value.c_str());
        else if (flag == L"--payload")
            options.payload = PayloadType(value);
        else if (flag == L"--trust")
            options.trust = value;
        else if (flag == L"--id")
            options.id = value;
        else {
            std::fprintf(stderr, "unknown option %s\n", Utf8(flag.c_str()).c_str());
            return kExitUsage;
        }
    }

    HMODULE module =
        ::LoadLibraryExW(L"kesclient.dll", nullptr,
                         LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (module == nullptr) {
        std::fprintf(stderr, "cannot load kesclient.dll: %lu\n", ::GetLastError());
        return kExitNoLibrary;
    }
    const auto run = Bind<KesClientRunDownloadsFn>(module, KESCLIENT_ORDINAL_RUN_DOWNLOADS);
    const auto create = Bind<KesClientCreateDownloadFn>(module, KESCLIENT_ORDINAL_CREATE_DOWNLOAD);
    const auto release =
        Bind<KesClientReleaseDownloadFn>(module, KESCLIENT_ORDINAL_RELEASE_DOWNLOAD);
    const auto setLog = Bind<KesClientSetLogCallbackFn>(module, KESCLIENT_ORDINAL_SET_LOG_CALLBACK);
    const auto usePem = Bind<KesClientUsePemFileFn>(module, KESCLIENT_ORDINAL_USE_PEM_FILE);
    const auto useSystem =
        Bind<KesClientUseSystemStoreFn>(module, KESCLIENT_ORDINAL_USE_SYSTEM_STORE);
    if (!run || !create || !release || !setLog || !usePem || !useSystem) {
        std::fprintf(stderr, "kesclient.dll lacks an ordinal\n");
        return kExitNoLibrary;
    }

    setLog(PrintLogLine);
    if (options.trust.rfind("pem:", 0) == 0) {
        const std::string path = options.trust.substr(4);
        const KesClientString pem = View(path);
        usePem(&pem);
    } else if (options.trust == "system") {
        const int enable = 1;
        useSystem(&enable);
    }
    const KesClientString id = View(options.id), pac = View(options.pac),
                          folder = View(options.folder), checksum = View(options.checksum);
    const ListView urls(options.urls), pins(options.pins), proxies(options.proxies);
    KesClientDownload* download =
        create(&id, options.size, options.verifySize, urls.list(), pins.list(), proxies.list(),
               &pac, &folder, &checksum, 0, options.payload);
    if (download == nullptr) return kExitNoLibrary;
    KesClientDownload* const items[] = {download};
    LARGE_INTEGER frequency{}, began{}, ended{};
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&began);
    const int result = run(&folder, KesClientDownloadList{items, 1});
    ::QueryPerformanceCounter(&ended);
    release(download);
    std::printf("result %d\n", result);
    if (options.stats) {
        PROCESS_MEMORY_COUNTERS counters{};
        counters.cb = sizeof(counters);
        ::K32GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters));
        std::printf("elapsed-seconds %.6f\npeak-working-set-bytes %llu\n",
                    static_cast<double>(ended.QuadPart - began.QuadPart) /
                        static_cast<double>(frequency.QuadPart),
                    static_cast<unsigned long long>(counters.PeakWorkingSetSize));
    }
    return result;
}
