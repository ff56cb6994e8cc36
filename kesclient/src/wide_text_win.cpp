#include "wide_text_win.h"

#include <winhttp.h>

#include <cstdio>

namespace kesclient {

bool WideFromUtf8(std::string_view text, std::wstring* wide) {
    wide->clear();
    if (text.empty()) return true;
    if (text.size() > 0x7FFFFFFF) return false;
    const int size = static_cast<int>(text.size());
    const int length =
        ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
    if (length <= 0) return false;
    wide->resize(static_cast<std::size_t>(length));
    return ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, wide->data(),
                                 length) == length;
}

std::string Utf8FromWide(std::wstring_view wide) {
    if (wide.empty() || wide.size() > 0x7FFFFFFF) return {};
    const int size = static_cast<int>(wide.size());
    const int length =
        ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    if (length <= 0) return {};
    std::string text(static_cast<std::size_t>(length), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, text.data(), length, nullptr, nullptr);
    return text;
}

namespace {

// WinHTTP's own codes by name: their message table is missing on some systems (Wine among them),
// and a bare number in a log helps nobody.
const char* WinHttpErrorName(DWORD code) {
    switch (code) {
        case ERROR_WINHTTP_TIMEOUT:
            return "timeout";
        case ERROR_WINHTTP_NAME_NOT_RESOLVED:
            return "host name not resolved";
        case ERROR_WINHTTP_CANNOT_CONNECT:
            return "cannot connect";
        case ERROR_WINHTTP_CONNECTION_ERROR:
            return "connection reset or closed";
        case ERROR_WINHTTP_INVALID_SERVER_RESPONSE:
            return "invalid server response";
        case ERROR_WINHTTP_SECURE_CHANNEL_ERROR:
            return "TLS error or certificate refused";
        case ERROR_WINHTTP_SECURE_FAILURE:
            return "certificate refused";
        case ERROR_WINHTTP_SECURE_CERT_DATE_INVALID:
            return "certificate expired or not yet valid";
        case ERROR_WINHTTP_SECURE_CERT_CN_INVALID:
            return "certificate does not name the host";
        case ERROR_WINHTTP_SECURE_INVALID_CA:
            return "untrusted root";
        case ERROR_WINHTTP_SECURE_INVALID_CERT:
            return "invalid certificate";
        case ERROR_WINHTTP_SECURE_CERT_REVOKED:
            return "certificate revoked";
        case ERROR_WINHTTP_SECURE_CERT_REV_FAILED:
            return "revocation check failed";
        case ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE:
            return "certificate not for server authentication";
        case ERROR_WINHTTP_REDIRECT_FAILED:
            return "redirect failed";
        case ERROR_WINHTTP_OPERATION_CANCELLED:
            return "cancelled";
        case ERROR_WINHTTP_UNABLE_TO_DOWNLOAD_SCRIPT:
            return "cannot download the PAC script";
        case ERROR_WINHTTP_BAD_AUTO_PROXY_SCRIPT:
            return "bad PAC script";
        case ERROR_WINHTTP_AUTO_PROXY_SERVICE_ERROR:
            return "no proxy from the PAC script";
        default:
            return nullptr;
    }
}

}  // namespace

std::string ErrorText(DWORD code) {
    if (const char* name = WinHttpErrorName(code)) return std::to_string(code) + " (" + name + ")";
    wchar_t* buffer = nullptr;
    // WinHTTP's codes (12000-12199) have their messages in winhttp.dll, not in the system table.
    const bool winhttp = code >= 12000 && code < 12200;
    HMODULE module = winhttp ? ::GetModuleHandleW(L"winhttp.dll") : nullptr;
    const DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                        (module ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM);
    const DWORD length =
        ::FormatMessageW(flags, module, code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::string text;
    if (code >= 0x80000000u) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08lX", static_cast<unsigned long>(code));
        text = hex;
    } else {
        text = std::to_string(code);
    }
    if (length > 0 && buffer != nullptr) {
        std::wstring message(buffer, length);
        while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' ||
                                    message.back() == L' ' || message.back() == L'.')) {
            message.pop_back();
        }
        if (!message.empty()) text += " (" + Utf8FromWide(message) + ")";
    }
    if (buffer != nullptr) ::LocalFree(buffer);
    return text;
}

}  // namespace kesclient
