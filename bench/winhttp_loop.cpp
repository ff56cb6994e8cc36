// The baseline of the download benchmark: the least a WinHTTP client can do to fetch a file over
// HTTPS. Open, send, receive the headers, then WinHttpReadData into one 1 MiB buffer whose bytes
// are thrown away: no disk, no hash, no second thread. The server is validated the ordinary way
// (the machine's Root store must hold its CA), so the TLS work matches that of a real client.
//
//   winhttp_loop URL [--save FILE]
//
// --save writes each chunk to FILE as it arrives, on the same thread, and flushes it at the end:
// the cost of storing the bytes at all, to set the content client's overhead against.
//
// Prints "bytes N", "seconds S" (from WinHttpOpen to the last byte, flushed when saving),
// "body-seconds B" (from the first answer's headers to the last byte read and written) and
// "peak-working-set-bytes P". Exits 0 only when the whole file was read: a dropped connection
// reads as a clean end under Wine, so the count is checked against Content-Length. A file over
// 2^31-1 bytes takes a second, Range request (see kAnswerCap), as in the content client.
#include <windows.h>
// <winhttp.h> and <psapi.h> need <windows.h> first.
#include <psapi.h>
#include <winhttp.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr DWORD kBufferBytes = 1u << 20;
// WinHTTP under Wine ends every answer's body after 2^31-1 bytes, as if it were complete (seen with
// Wine 8).
constexpr std::uint64_t kAnswerCap = 0x7FFFFFFF;

struct Internet {
    HINTERNET handle = nullptr;
    explicit Internet(HINTERNET h) : handle(h) {}
    ~Internet() {
        if (handle != nullptr) ::WinHttpCloseHandle(handle);
    }
    Internet(const Internet&) = delete;
    Internet& operator=(const Internet&) = delete;
};

bool Failed(const char* step) {
    std::fprintf(stderr, "winhttp_loop: %s failed: %lu\n", step, ::GetLastError());
    return false;
}

// Content-Length as 64-bit text: the numeric query stops at 2^31-1, short of a 2 GiB file.
bool ContentLength(HINTERNET request, std::uint64_t* length) {
    wchar_t text[32] = {};
    DWORD size = sizeof(text);
    if (!::WinHttpQueryHeaders(request, WINHTTP_QUERY_CONTENT_LENGTH, WINHTTP_HEADER_NAME_BY_INDEX,
                               text, &size, WINHTTP_NO_HEADER_INDEX)) {
        return false;
    }
    std::uint64_t value = 0;
    for (const wchar_t* c = text; *c != L'\0'; ++c) {
        if (*c < L'0' || *c > L'9') return false;
        value = value * 10 + static_cast<std::uint64_t>(*c - L'0');
    }
    *length = value;
    return true;
}

struct Target {
    std::wstring host, path;
    INTERNET_PORT port = 0;
    HANDLE file = INVALID_HANDLE_VALUE;  // where --save writes, if given
};

// One GET of the target from byte offset on (a Range request when offset > 0), its body read into
// buffer (and saved). *length: the whole file's length as the answer gives it.
bool Fetch(HINTERNET session, const Target& target, std::uint64_t offset, std::vector<char>& buffer,
           std::uint64_t* length, std::uint64_t* received, LARGE_INTEGER* headersAt) {
    Internet connection(::WinHttpConnect(session, target.host.c_str(), target.port, 0));
    if (connection.handle == nullptr) return Failed("connect");
    Internet request(::WinHttpOpenRequest(connection.handle, L"GET", target.path.c_str(), nullptr,
                                          WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                          WINHTTP_FLAG_SECURE | WINHTTP_FLAG_REFRESH));
    if (request.handle == nullptr) return Failed("open request");
    // Not pooled: an answer cut short at the cap leaves its rest unread on the connection.
    DWORD features = WINHTTP_DISABLE_KEEP_ALIVE;
    ::WinHttpSetOption(request.handle, WINHTTP_OPTION_DISABLE_FEATURE, &features, sizeof(features));
    std::wstring headers = L"Accept-Encoding: identity\r\n";
    if (offset > 0) headers += L"Range: bytes=" + std::to_wstring(offset) + L"-\r\n";
    if (!::WinHttpSendRequest(request.handle, headers.c_str(), static_cast<DWORD>(headers.size()),
                              WINHTTP_NO_REQUEST_DATA, 0, 0, 0)) {
        return Failed("send");
    }
    if (!::WinHttpReceiveResponse(request.handle, nullptr)) return Failed("receive");
    DWORD status = 0;
    DWORD size = sizeof(status);
    ::WinHttpQueryHeaders(request.handle, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                          WINHTTP_HEADER_NAME_BY_INDEX, &status, &size, WINHTTP_NO_HEADER_INDEX);
    std::uint64_t bodyLength = 0;
    if (status != (offset > 0 ? 206u : 200u) || !ContentLength(request.handle, &bodyLength)) {
        std::fprintf(stderr, "winhttp_loop: status %lu, or no Content-Length\n", status);
        return false;
    }
    *length = offset + bodyLength;
    if (headersAt != nullptr) ::QueryPerformanceCounter(headersAt);

    *received = 0;
    for (;;) {
        DWORD read = 0;
        if (!::WinHttpReadData(request.handle, buffer.data(), kBufferBytes, &read))
            return Failed("read");
        if (read == 0) return true;
        *received += read;
        DWORD written = 0;
        if (target.file != INVALID_HANDLE_VALUE &&
            (!::WriteFile(target.file, buffer.data(), read, &written, nullptr) ||
             written != read)) {
            return Failed("write");
        }
    }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const bool save = argc == 4 && std::wstring(argv[2]) == L"--save";
    if (argc != 2 && !save) {
        std::fprintf(stderr, "usage: winhttp_loop URL [--save FILE]\n");
        return 2;
    }
    URL_COMPONENTS parts{};
    parts.dwStructSize = sizeof(parts);
    parts.dwHostNameLength = static_cast<DWORD>(-1);
    parts.dwUrlPathLength = static_cast<DWORD>(-1);
    if (!::WinHttpCrackUrl(argv[1], 0, 0, &parts) || parts.nScheme != INTERNET_SCHEME_HTTPS) {
        Failed("crack https URL");
        return 1;
    }
    Target target;
    target.host.assign(parts.lpszHostName, parts.dwHostNameLength);
    target.path.assign(parts.lpszUrlPath, parts.dwUrlPathLength);
    target.port = parts.nPort;
    std::vector<char> buffer(kBufferBytes);

    LARGE_INTEGER frequency{}, began{}, headers{}, bodyEnded{}, ended{};
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&began);

    if (save) {
        target.file = ::CreateFileW(argv[3], GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
        if (target.file == INVALID_HANDLE_VALUE) {
            Failed("create file");
            return 1;
        }
    }
    Internet session(::WinHttpOpen(L"winhttp_loop/1.0", WINHTTP_ACCESS_TYPE_NO_PROXY,
                                   WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0));
    if (session.handle == nullptr) {
        Failed("open");
        return 1;
    }
    // The same protocols as the content client asks for, so both get the same cipher.
    DWORD protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3;
    if (!::WinHttpSetOption(session.handle, WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols,
                            sizeof(protocols))) {
        protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2;
        ::WinHttpSetOption(session.handle, WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols,
                           sizeof(protocols));
    }

    std::uint64_t length = 0, received = 0;
    if (!Fetch(session.handle, target, 0, buffer, &length, &received, &headers)) return 1;
    std::uint64_t total = received;
    while (total < length && received == kAnswerCap) {
        std::uint64_t more = 0;
        if (!Fetch(session.handle, target, total, buffer, &more, &received, nullptr)) return 1;
        total += received;
    }
    ::QueryPerformanceCounter(&bodyEnded);
    if (save) {
        if (!::FlushFileBuffers(target.file)) {
            Failed("flush");
            return 1;
        }
        ::CloseHandle(target.file);
    }
    ::QueryPerformanceCounter(&ended);

    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    ::K32GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters));
    const auto seconds = [&](const LARGE_INTEGER& from, const LARGE_INTEGER& to) {
        return static_cast<double>(to.QuadPart - from.QuadPart) /
               static_cast<double>(frequency.QuadPart);
    };
    std::printf("bytes %llu\nseconds %.6f\nbody-seconds %.6f\npeak-working-set-bytes %llu\n",
                static_cast<unsigned long long>(total), seconds(began, ended),
                seconds(headers, bodyEnded),
                static_cast<unsigned long long>(counters.PeakWorkingSetSize));
    if (total != length) {
        std::fprintf(stderr, "winhttp_loop: %llu of %llu bytes\n",
                     static_cast<unsigned long long>(total),
                     static_cast<unsigned long long>(length));
        return 1;
    }
    return 0;
}
