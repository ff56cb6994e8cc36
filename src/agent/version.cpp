#include "agent/version.h"

#include <limits>

#include "core/tokenizer.h"

namespace {

bool IsCSpace(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\n' || c == L'\v' || c == L'\f' || c == L'\r';
}

int DigitValue(wchar_t c) {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'z') return c - L'a' + 10;
    if (c >= L'A' && c <= L'Z') return c - L'A' + 10;
    return 99;
}

struct Magnitude {
    bool negative = false;
    std::uint64_t value = 0;  // capped just above 2^32, which every caller treats as overflow
};

Magnitude ReadMagnitude(std::wstring_view text) {
    Magnitude result;
    std::size_t i = 0;
    while (i < text.size() && IsCSpace(text[i])) ++i;
    if (i < text.size() && (text[i] == L'+' || text[i] == L'-'))
        result.negative = text[i++] == L'-';
    int base = 10;
    if (i < text.size() && text[i] == L'0') {
        base = 8;
        if (i + 1 < text.size() && (text[i + 1] == L'x' || text[i + 1] == L'X')) {
            base = 16;
            i += 2;
        }
    }
    constexpr std::uint64_t kCap = std::uint64_t{1} << 33;
    for (; i < text.size(); ++i) {
        const int digit = DigitValue(text[i]);
        if (digit >= base) break;
        result.value =
            result.value * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
        if (result.value > kCap) result.value = kCap;
    }
    return result;
}

}  // namespace

std::int32_t ReadLongAutoBase(std::wstring_view text) {
    const Magnitude m = ReadMagnitude(text);
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max());
    if (m.negative) {
        if (m.value > kMax + 1) return std::numeric_limits<std::int32_t>::min();
        return static_cast<std::int32_t>(-static_cast<std::int64_t>(m.value));
    }
    return m.value > kMax ? std::numeric_limits<std::int32_t>::max()
                          : static_cast<std::int32_t>(m.value);
}

std::uint32_t ReadUnsignedLongAutoBase(std::wstring_view text) {
    const Magnitude m = ReadMagnitude(text);
    if (m.value > std::numeric_limits<std::uint32_t>::max())
        return std::numeric_limits<std::uint32_t>::max();
    const auto value = static_cast<std::uint32_t>(m.value);
    return m.negative ? 0u - value : value;
}

bool ParseVersionText(std::wstring_view text, VersionNumbers& parts) {
    const std::vector<std::wstring> tokens = core::SplitTokens(text, L".-_");
    if (tokens.size() < 3) return false;
    for (std::size_t i = 0; i < parts.leading.size(); ++i)
        parts.leading[i] = ReadLongAutoBase(tokens[i]);
    if (tokens.size() > 3) parts.build = ReadUnsignedLongAutoBase(tokens[3]);
    return true;
}

bool UpgradeNeeded(const VersionNumbers& installed, const VersionNumbers& update,
                   bool alreadyNeeded) {
    const bool leadingOffered =
        update.leading[0] > 0 || update.leading[1] > 0 || update.leading[2] > 0;
    if (leadingOffered) {
        for (std::size_t i = 0; i < update.leading.size(); ++i) {
            if (update.leading[i] > installed.leading[i]) return true;
            if (update.leading[i] < installed.leading[i]) return alreadyNeeded;
        }
    }
    if (update.build == 0 || installed.build == 0 || update.build <= installed.build)
        return alreadyNeeded;
    return true;
}
