#include "core/text.h"

#include <cwctype>
#include <limits>

#include "common/utf8.h"
#include "core/core_exception.h"

namespace core {
namespace {

constexpr char32_t kMaxCodePoint = 0x10FFFF;

bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

// Appends one code point to a wide string: a surrogate pair where wchar_t is 16 bits wide.
void AppendCodePoint(std::wstring& out, char32_t cp) {
    if constexpr (sizeof(wchar_t) == 2) {
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
            return;
        }
    }
    out.push_back(static_cast<wchar_t>(cp));
}

// Well-formed UTF-8 (the Unicode standard's table of byte sequences): the lead byte fixes the
// length and the range of the first continuation byte, which rules out overlong forms, surrogates
// and code points past U+10FFFF. `replace` turns each maximal ill-formed subpart into one U+FFFD;
// otherwise the first one throws.
std::wstring DecodeUtf8(std::string_view text, bool replace) {
    std::wstring out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        unsigned char low = 0x80, high = 0xBF;  // the first continuation byte's range
        if (lead < 0x80) {
            length = 1;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        }
        char32_t cp = length == 1 ? lead : lead & (0x7F >> length);
        std::size_t taken = 1;  // bytes of the sequence seen to be good
        for (; length != 0 && taken < length && i + taken < text.size(); ++taken) {
            const auto next = static_cast<unsigned char>(text[i + taken]);
            const bool fits = taken == 1 ? (next >= low && next <= high) : (next & 0xC0) == 0x80;
            if (!fits) break;
            cp = (cp << 6) | (next & 0x3F);
        }
        if (length == 0 || taken < length) {
            if (!replace) throw CORE::coreException("to_wstr Failed");
            out.push_back(static_cast<wchar_t>(0xFFFD));
        } else {
            AppendCodePoint(out, cp);
        }
        i += taken;
    }
    return out;
}

template <typename Int>
bool ParseDecimal(std::wstring_view text, Int& out) {
    if (text.empty()) return false;
    bool negative = false;
    std::size_t i = 0;
    if (text[0] == L'-' || text[0] == L'+') {
        negative = text[0] == L'-';
        i = 1;
    }
    if (i == text.size()) return false;
    using Wide = unsigned long long;
    const Wide limit = negative ? static_cast<Wide>(std::numeric_limits<Int>::max()) + 1
                                : static_cast<Wide>(std::numeric_limits<Int>::max());
    if (negative && !std::numeric_limits<Int>::is_signed) {
        // "-0" is the only negative text an unsigned value accepts.
        for (; i < text.size(); ++i)
            if (text[i] != L'0') return false;
        out = 0;
        return true;
    }
    Wide value = 0;
    for (; i < text.size(); ++i) {
        const wchar_t c = text[i];
        if (c < L'0' || c > L'9') return false;
        const Wide digit = static_cast<Wide>(c - L'0');
        if (value > (limit - digit) / 10) return false;  // checked before it could wrap
        value = value * 10 + digit;
    }
    if (negative) {
        out = static_cast<Int>(0 - value);  // two's complement; value <= |min|
    } else {
        out = static_cast<Int>(value);
    }
    return true;
}

}  // namespace

std::string Utf8FromWide(std::wstring_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t cp = static_cast<char32_t>(text[i]);
        if constexpr (sizeof(wchar_t) == 2) {
            cp &= 0xFFFF;
            if (cp >= 0xD800 && cp <= 0xDBFF) {
                if (i + 1 >= text.size()) throw CORE::coreException("to_mstr Failed");
                const char32_t low = static_cast<char32_t>(text[i + 1]) & 0xFFFF;
                if (low < 0xDC00 || low > 0xDFFF) throw CORE::coreException("to_mstr Failed");
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            } else if (IsSurrogate(cp)) {
                throw CORE::coreException("to_mstr Failed");
            }
        } else if (IsSurrogate(cp) || cp > kMaxCodePoint) {
            throw CORE::coreException("to_mstr Failed");
        }
        common::AppendUtf8(out, cp);
    }
    return out;
}

std::wstring WideFromUtf8(std::string_view text) {
    return DecodeUtf8(text, false);
}

std::wstring WideFromUtf8Lenient(std::string_view text) {
    return DecodeUtf8(text, true);
}

std::wstring WideFromUtf16Bytes(const std::vector<std::uint8_t>& bytes) {
    std::wstring out;
    out.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        out.push_back(static_cast<wchar_t>(bytes[i] | (bytes[i + 1] << 8)));
    return out;
}

std::vector<std::uint8_t> Utf16BytesFromWide(std::wstring_view text, bool withTerminator) {
    std::vector<std::uint8_t> out;
    out.reserve((text.size() + 1) * 2);
    auto put = [&out](char32_t unit) {
        out.push_back(static_cast<std::uint8_t>(unit & 0xFF));
        out.push_back(static_cast<std::uint8_t>((unit >> 8) & 0xFF));
    };
    for (wchar_t c : text) {
        auto cp = static_cast<char32_t>(c);
        if (cp >= 0x10000 && cp <= kMaxCodePoint) {
            cp -= 0x10000;
            put(0xD800 + (cp >> 10));
            put(0xDC00 + (cp & 0x3FF));
        } else {
            put(cp);
        }
    }
    if (withTerminator) put(0);
    return out;
}

std::wstring ToLower(std::wstring_view text) {
    std::wstring out(text);
    for (wchar_t& c : out) c = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
    return out;
}

bool ContainsIgnoreCase(std::wstring_view haystack, std::wstring_view needle) {
    return ToLower(haystack).find(ToLower(needle)) != std::wstring::npos;
}

std::wstring Trim(std::wstring_view text) {
    constexpr std::wstring_view kBlanks = L" \t\r\n";
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::wstring_view::npos) return {};
    const auto last = text.find_last_not_of(kBlanks);
    return std::wstring(text.substr(first, last - first + 1));
}

std::vector<std::wstring> Split(std::wstring_view text, wchar_t separator) {
    std::vector<std::wstring> parts;
    std::size_t start = 0;
    for (;;) {
        const auto pos = text.find(separator, start);
        if (pos == std::wstring_view::npos) {
            parts.emplace_back(text.substr(start));
            return parts;
        }
        parts.emplace_back(text.substr(start, pos - start));
        start = pos + 1;
    }
}

std::wstring Join(const std::vector<std::wstring>& parts, std::wstring_view separator) {
    std::wstring out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i) out += separator;
        out += parts[i];
    }
    return out;
}

bool ParseInt32(std::wstring_view text, std::int32_t& out) { return ParseDecimal(text, out); }
bool ParseUint32(std::wstring_view text, std::uint32_t& out) { return ParseDecimal(text, out); }
bool ParseInt64(std::wstring_view text, std::int64_t& out) { return ParseDecimal(text, out); }

std::wstring PathJoin(std::wstring_view left, std::wstring_view right) {
    std::wstring out(left);
    if (!left.empty() && left.back() != L'\\' &&
        (right.empty() || (right.front() != L'\\' && right.front() != L'/')))
        out.push_back(L'\\');
    for (wchar_t c : right) out.push_back(c == L'/' ? L'\\' : c);
    return out;
}

bool NoCaseLess::operator()(std::wstring_view a, std::wstring_view b) const {
    const std::size_t n = a.size() < b.size() ? a.size() : b.size();
    for (std::size_t i = 0; i < n; ++i) {
        const auto x = std::towlower(static_cast<std::wint_t>(a[i]));
        const auto y = std::towlower(static_cast<std::wint_t>(b[i]));
        if (x != y) return x < y;
    }
    return a.size() < b.size();
}

std::wstring FileNameOf(std::wstring_view path) {
    const auto pos = path.rfind(L'\\');
    return std::wstring(pos == std::wstring_view::npos ? path : path.substr(pos + 1));
}

}  // namespace core
