#pragma once
// UTF-8 (the ABI's text) to and from UTF-16 (the Windows API's), and error codes as text.
#include <windows.h>

#include <string>
#include <string_view>

namespace kesclient {

// False for invalid UTF-8: a path or URL that does not convert exactly must not be guessed at.
bool WideFromUtf8(std::string_view text, std::wstring* wide);
std::string Utf8FromWide(std::wstring_view wide);

// "12029 (A connection with the server could not be established)" for Win32 and WinHTTP codes.
std::string ErrorText(DWORD code);

}  // namespace kesclient
