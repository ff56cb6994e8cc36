#include "entry_name.h"

#include <cstdint>

#include "ascii_text.h"
#include "common/utf8.h"

namespace kesclient {
namespace {

bool Refuse(std::string* why, const char* text) {
    if (why) *why = text;
    return false;
}

std::nullopt_t RefuseName(std::string* why, const char* text) {
    Refuse(why, text);
    return std::nullopt;
}

bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

// Decodes one UTF-8 sequence at text[i]; returns its length, or 0 when invalid (overlong forms,
// surrogates, values past U+10FFFF, truncated sequences).
std::size_t DecodeUtf8(std::string_view text, std::size_t i, std::uint32_t* codePoint) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = 0;
    std::uint32_t value = 0;
    if (lead < 0x80) {
        *codePoint = lead;
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        const auto next = static_cast<unsigned char>(text[i + k]);
        if ((next & 0xC0) != 0x80) return 0;
        value = (value << 6) | (next & 0x3F);
    }
    static constexpr std::uint32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < kMinimum[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return 0;
    *codePoint = value;
    return length;
}

std::uint32_t FoldCodePoint(std::uint32_t cp) {
    if (cp >= 'A' && cp <= 'Z') return cp + 0x20;
    if (cp >= 0xC0 && cp <= 0xDE && cp != 0xD7) return cp + 0x20;  // Latin-1
    if (cp >= 0x100 && cp <= 0x137 && cp % 2 == 0) return cp + 1;  // Latin Extended-A
    if (cp >= 0x139 && cp <= 0x148 && cp % 2 == 1) return cp + 1;
    if (cp >= 0x14A && cp <= 0x177 && cp % 2 == 0) return cp + 1;
    if (cp == 0x179 || cp == 0x17B || cp == 0x17D) return cp + 1;
    if (cp >= 0x391 && cp <= 0x3AB && cp != 0x3A2) return cp + 0x20;  // Greek
    if (cp >= 0x410 && cp <= 0x42F) return cp + 0x20;                 // Cyrillic
    if (cp >= 0x400 && cp <= 0x40F) return cp + 0x50;
    return cp;
}

}  // namespace

bool IsValidUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        std::uint32_t cp = 0;
        const std::size_t length = DecodeUtf8(text, i, &cp);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

std::string FoldCase(std::string_view utf8) {
    std::string folded;
    folded.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size();) {
        std::uint32_t cp = 0;
        const std::size_t length = DecodeUtf8(utf8, i, &cp);
        if (length == 0) {  // not expected after validation; keep the byte as it is
            folded.push_back(utf8[i++]);
            continue;
        }
        common::AppendUtf8(folded, FoldCodePoint(cp));
        i += length;
    }
    return folded;
}

bool IsReservedDeviceName(std::string_view component) {
    // Windows looks at the part before the first dot, without trailing blanks.
    std::string_view base = component.substr(0, component.find('.'));
    while (!base.empty() && (base.back() == ' ' || base.back() == '.')) base.remove_suffix(1);
    const std::string upper = UpperAscii(base);
    static constexpr std::string_view kNames[] = {"CON",    "PRN",     "AUX",   "NUL",
                                                  "CONIN$", "CONOUT$", "CLOCK$"};
    for (const std::string_view name : kNames) {
        if (upper == name) return true;
    }
    if (upper.size() < 4) return false;
    const std::string_view stem = std::string_view(upper).substr(0, 3);
    if (stem != "COM" && stem != "LPT") return false;
    const std::string_view digit = std::string_view(upper).substr(3);
    if (digit.size() == 1 && digit[0] >= '0' && digit[0] <= '9') return true;
    // Superscript one, two and three (U+00B9, U+00B2, U+00B3) name devices too.
    return digit == "\xC2\xB9" || digit == "\xC2\xB2" || digit == "\xC2\xB3";
}

bool IsAcceptableComponent(std::string_view component, std::string* why) {
    if (component.empty()) return Refuse(why, "empty name component");
    if (component.size() > kMaxComponentBytes) return Refuse(why, "name component too long");
    if (component == "..") return Refuse(why, "\"..\" component");
    if (!IsValidUtf8(component)) return Refuse(why, "name is not UTF-8");
    for (const char c : component) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) return Refuse(why, "control character in name");
        if (c == '<' || c == '>' || c == ':' || c == '"' || c == '|' || c == '?' || c == '*') {
            return Refuse(why, "character Windows does not allow in a name");
        }
        if (IsSeparator(c)) return Refuse(why, "separator in name component");
    }
    if (component.back() == '.' || component.back() == ' ') {
        return Refuse(why, "name ends in a dot or a blank");
    }
    if (IsReservedDeviceName(component)) return Refuse(why, "reserved device name");
    return true;
}

std::optional<std::vector<std::string>> SplitEntryName(std::string_view name, std::string* why) {
    if (name.empty()) return RefuseName(why, "empty name");
    if (name.size() > kMaxEntryNameBytes) return RefuseName(why, "name too long");
    if (name.find('\0') != std::string_view::npos) return RefuseName(why, "NUL in name");
    if (IsSeparator(name[0])) {
        const bool doubled = name.size() > 1 && IsSeparator(name[1]);
        const bool device = doubled && name.size() > 3 && (name[2] == '?' || name[2] == '.') &&
                            IsSeparator(name[3]);
        return RefuseName(why, device ? "device path" : doubled ? "UNC path" : "absolute path");
    }
    const bool letter = (name[0] >= 'a' && name[0] <= 'z') || (name[0] >= 'A' && name[0] <= 'Z');
    if (letter && name.size() > 1 && name[1] == ':') {
        return RefuseName(
            why, name.size() > 2 && IsSeparator(name[2]) ? "drive path" : "drive-relative path");
    }

    std::vector<std::string> components;
    std::size_t start = 0;
    while (start <= name.size()) {
        std::size_t end = start;
        while (end < name.size() && !IsSeparator(name[end])) ++end;
        const std::string_view component = name.substr(start, end - start);
        start = end + 1;
        if (component.empty() || component == ".") continue;
        if (!IsAcceptableComponent(component, why)) return std::nullopt;
        if (components.size() == kMaxEntryDepth) return RefuseName(why, "path too deep");
        components.emplace_back(component);
    }
    return components;
}

}  // namespace kesclient
