#include "ascii_text.h"

namespace kesclient {

bool IsBlank(char c) {
    return kBlanks.find(c) != std::string_view::npos;
}

std::string_view Trim(std::string_view text, std::string_view blanks) {
    while (!text.empty() && blanks.find(text.front()) != std::string_view::npos)
        text.remove_prefix(1);
    while (!text.empty() && blanks.find(text.back()) != std::string_view::npos)
        text.remove_suffix(1);
    return text;
}

char LowerAscii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string LowerAscii(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = LowerAscii(c);
    return lower;
}

std::string UpperAscii(std::string_view text) {
    std::string upper(text);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && StartsWithNoCase(a, b);
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (LowerAscii(text[i]) != LowerAscii(prefix[i])) return false;
    }
    return true;
}

std::optional<std::uint64_t> ParseDecimal(std::string_view digits, std::uint64_t max) {
    if (digits.empty()) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9') return std::nullopt;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (digit > max || value > (max - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

}  // namespace kesclient
