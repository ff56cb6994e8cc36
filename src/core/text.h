#pragma once
// Text helpers shared by every subsystem. All text is std::wstring; UTF-8 exists only at the
// content-client and telemetry boundaries, through Utf8FromWide / WideFromUtf8.
// Registry string data travels as UTF-16LE bytes; Utf16Bytes* convert one code unit per wchar_t
// so that the same bytes round-trip on Windows (16-bit wchar_t) and in native tests (32-bit).
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace core {

// Throw CORE::coreException("to_mstr Failed") / ("to_wstr Failed") on malformed input.
std::string Utf8FromWide(std::wstring_view text);
std::wstring WideFromUtf8(std::string_view text);
// Text from outside that must not be lost: each ill-formed sequence becomes one U+FFFD.
std::wstring WideFromUtf8Lenient(std::string_view text);

// UTF-16LE bytes to text: an odd trailing byte is dropped; the text ends at the end of the data
// (embedded NULs are kept; the caller decides what a terminator means).
std::wstring WideFromUtf16Bytes(const std::vector<std::uint8_t>& bytes);
std::vector<std::uint8_t> Utf16BytesFromWide(std::wstring_view text, bool withTerminator);

// ASCII-and-Latin lower-casing for substring searches ("lower-case both sides first").
std::wstring ToLower(std::wstring_view text);
bool ContainsIgnoreCase(std::wstring_view haystack, std::wstring_view needle);

// Removes leading and trailing blanks, tabs, CR and LF.
std::wstring Trim(std::wstring_view text);

// Splits at every occurrence of the separator; empty pieces are kept.
std::vector<std::wstring> Split(std::wstring_view text, wchar_t separator);
std::wstring Join(const std::vector<std::wstring>& parts, std::wstring_view separator);

// Strict decimal parsing: optional sign, digits only, no blanks, within range.
bool ParseInt32(std::wstring_view text, std::int32_t& out);
bool ParseUint32(std::wstring_view text, std::uint32_t& out);
bool ParseInt64(std::wstring_view text, std::int64_t& out);

// The path-joining rule used for every path in the tool: a backslash is inserted when the left
// side is non-empty, does not end in one and the right side does not begin with '\' or '/';
// every '/' of the right side becomes '\'.
std::wstring PathJoin(std::wstring_view left, std::wstring_view right);

// Case-insensitive ordering for maps keyed by registry value names, which Windows treats without
// regard to case.
struct NoCaseLess {
    bool operator()(std::wstring_view a, std::wstring_view b) const;
};

// The part after the last backslash (the whole text when there is none).
std::wstring FileNameOf(std::wstring_view path);

}  // namespace core
