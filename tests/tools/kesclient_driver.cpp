// Drives kesclient.dll as the tool does, for end-to-end tests and benchmarks: loads it from its own
// folder only, prints its log lines as "[level] message", then "result N", and exits with N.
//
//   kesclient_driver --folder DIR --url URL [--url URL2 ...] [--trust pem:FILE|system|none]
//                    [--pin HEX ...] [--proxy HOST:PORT ...] [--pac URL] [--checksum TEXT]
//                    [--size N] [--payload exe|tar]
//                    [--stats]  (at exit: the download's wall time and the peak working set)
//   kesclient_driver --add-root FILE | --remove-root FILE  (a PEM certificate in the machine's
//                    Root store, for tests of the system-store mode)
//
// Exit codes of its own: 200 DLL or ordinal missing, 201 bad arguments, 202 store change failed.
#include <windows.h>
// <wincrypt.h> needs <windows.h> first; K32GetProcessMemoryInfo lives in kernel32.
#include <psapi.h>
#include <wincrypt.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "kesclient/kesclient.h"

namespace {

constexpr int kExitNoLibrary = 200, kExitUsage = 201, kExitStore = 202;

std::string Utf8(const wchar_t* text) {
    const int length = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string out(length > 1 ? length : 1, '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), length, nullptr, nullptr);
    out.pop_back();
    return out;
}

void PrintLogLine(int level, const char* format, va_list args) {
    static const char* const kLevels[] = {"debug", "info", "warning", "error"};
    char line[4096];
    std::vsnprintf(line, sizeof line, format, args);
    std::printf("[%s] %s\n", level >= 0 && level < 4 ? kLevels[level] : "?", line);
    std::fflush(stdout);
}

KesClientString View(const std::string& text) { return {text.data(), text.size()}; }

std::vector<KesClientString> Views(const std::vector<std::string>& texts) {
    std::vector<KesClientString> views;
    for (const auto& text : texts) views.push_back(View(text));
    return views;
}

int ChangeRoot(const wchar_t* path, bool add) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    const std::string pem{std::istreambuf_iterator<char>(file), {}};
    DWORD size = 0;
    const auto decode = [&](BYTE* der) {
        return ::CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()),
                                      CRYPT_STRING_BASE64HEADER, der, &size, nullptr, nullptr);
    };
    if (!file || !decode(nullptr)) return kExitStore;
    std::vector<BYTE> der(size);
    decode(der.data());
    HCERTSTORE store =
        ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root");
    PCCERT_CONTEXT cert = ::CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), size);
    bool done = false;
    if (store && cert && add) {
        done = ::CertAddCertificateContextToStore(store, cert, CERT_STORE_ADD_REPLACE_EXISTING,
                                                  nullptr);
    } else if (store && cert) {
        PCCERT_CONTEXT found = ::CertFindCertificateInStore(store, X509_ASN_ENCODING, 0,
                                                            CERT_FIND_EXISTING, cert, nullptr);
        done = !found || ::CertDeleteCertificateFromStore(found);  // deleting frees it
    }
    if (cert) ::CertFreeCertificateContext(cert);
    if (store) ::CertCloseStore(store, 0);
    return done ? 0 : kExitStore;
}

template <typename Fn>
Fn Bind(HMODULE module, int ordinal) {
    return reinterpret_cast<Fn>(
        reinterpret_cast<void*>(::GetProcAddress(module, MAKEINTRESOURCEA(ordinal))));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::string folder, pac, checksum, trust = "system", size = "0", payload = "exe";
    std::vector<std::string> urls, pins, proxies;
    bool stats = false;
    const std::map<std::wstring, std::string*> texts{
        {L"--folder", &folder}, {L"--pac", &pac},   {L"--checksum", &checksum},
        {L"--trust", &trust},   {L"--size", &size}, {L"--payload", &payload}};
    const std::map<std::wstring, std::vector<std::string>*> lists{
        {L"--url", &urls}, {L"--pin", &pins}, {L"--proxy", &proxies}};
    for (int i = 1; i < argc; ++i) {
        const std::wstring flag = argv[i];
        if (flag == L"--stats")
            stats = true;
        else if (i + 1 < argc && (flag == L"--add-root" || flag == L"--remove-root"))
            return ChangeRoot(argv[++i], flag == L"--add-root");
        else if (i + 1 < argc && texts.count(flag))
            *texts.at(flag) = Utf8(argv[++i]);
        else if (i + 1 < argc && lists.count(flag))
            lists.at(flag)->push_back(Utf8(argv[++i]));
        else {
            std::fprintf(stderr, "unknown option or missing value: %s\n",
                         Utf8(flag.c_str()).c_str());
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
    const auto useSys = Bind<KesClientUseSystemStoreFn>(module, KESCLIENT_ORDINAL_USE_SYSTEM_STORE);
    if (!run || !create || !release || !setLog || !usePem || !useSys) {
        std::fprintf(stderr, "kesclient.dll lacks an ordinal\n");
        return kExitNoLibrary;
    }

    setLog(PrintLogLine);
    const std::string pemPath = trust.rfind("pem:", 0) == 0 ? trust.substr(4) : "";
    const KesClientString pem = View(pemPath), id = {"driver", 6}, pacText = View(pac),
                          folderText = View(folder), checksumText = View(checksum);
    const int enable = 1;
    if (!pemPath.empty())
        usePem(&pem);
    else if (trust == "system")
        useSys(&enable);
    const auto urlViews = Views(urls), pinViews = Views(pins), proxyViews = Views(proxies);
    KesClientDownload* download =
        create(&id, std::atoll(size.c_str()), 1, {urlViews.data(), urlViews.size()},
               {pinViews.data(), pinViews.size()}, {proxyViews.data(), proxyViews.size()}, &pacText,
               &folderText, &checksumText, 0,
               payload == "tar" ? KESCLIENT_PAYLOAD_TAR : KESCLIENT_PAYLOAD_EXE);
    if (download == nullptr) return kExitNoLibrary;
    KesClientDownload* const items[] = {download};
    LARGE_INTEGER frequency{}, began{}, ended{};
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&began);
    const int result = run(&folderText, KesClientDownloadList{items, 1});
    ::QueryPerformanceCounter(&ended);
    release(download);
    std::printf("result %d\n", result);
    if (stats) {
        PROCESS_MEMORY_COUNTERS counters{};
        counters.cb = sizeof(counters);
        ::K32GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters));
        std::printf("elapsed-seconds %.6f\npeak-working-set-bytes %llu\n",
                    double(ended.QuadPart - began.QuadPart) / double(frequency.QuadPart),
                    static_cast<unsigned long long>(counters.PeakWorkingSetSize));
    }
    return result;
}
