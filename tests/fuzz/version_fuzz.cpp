// Version texts come from the update key, override files and the installer database. The number
// readers must agree with the C runtime they imitate, and the comparison must be an order: never
// an upgrade from a version to itself, never both ways between two versions.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <string>

#include "agent/version.h"
#include "fuzz_check.h"

namespace {

std::wstring Widened(const std::uint8_t* data, std::size_t size) {
    return std::wstring(data, data + size);
}

// glibc's wcstol has 64-bit longs; clamped to 32 bits it is the Windows runtime's reading. Only
// for ASCII text without NULs, where the two agree on white space and digits.
void CheckAgainstRuntime(const std::wstring& text) {
    if (std::any_of(text.begin(), text.end(), [](wchar_t c) { return c == 0 || c >= 0x80; }))
        return;
    errno = 0;
    const long long wide = std::wcstoll(text.c_str(), nullptr, 0);
    const long long clamped = std::clamp<long long>(wide, INT32_MIN, INT32_MAX);
    FUZZ_CHECK(ReadLongAutoBase(text) == clamped);
}

void CheckOrder(const VersionNumbers& a, const VersionNumbers& b) {
    FUZZ_CHECK(!UpgradeNeeded(a, a, false));
    FUZZ_CHECK(UpgradeNeeded(a, b, true));  // the comparison never clears a known need
    const bool positive = std::all_of(a.leading.begin(), a.leading.end(), [](int n) { return n > 0; }) &&
                          std::all_of(b.leading.begin(), b.leading.end(), [](int n) { return n > 0; });
    if (positive) FUZZ_CHECK(!(UpgradeNeeded(a, b, false) && UpgradeNeeded(b, a, false)));
}

std::wstring Format(const VersionNumbers& v, bool withBuild) {
    std::wstring text = std::to_wstring(v.leading[0]) + L"." + std::to_wstring(v.leading[1]) +
                        L"." + std::to_wstring(v.leading[2]);
    if (withBuild) text += L"-" + std::to_wstring(v.build);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring text = Widened(data, size);
    CheckAgainstRuntime(text);
    const std::int32_t signedValue = ReadLongAutoBase(text);
    const std::uint32_t unsignedValue = ReadUnsignedLongAutoBase(text);
    if (signedValue > 0 && signedValue < INT32_MAX)
        FUZZ_CHECK(unsignedValue == static_cast<std::uint32_t>(signedValue));

    // Two versions from one input: split at the first '|'.
    const std::size_t bar = text.find(L'|');
    const std::wstring first = text.substr(0, bar);
    const std::wstring second = bar == std::wstring::npos ? std::wstring() : text.substr(bar + 1);

    VersionNumbers sentinel;
    sentinel.leading = {-7, -7, -7};
    sentinel.build = 7;
    VersionNumbers a = sentinel;
    VersionNumbers b = sentinel;
    const bool parsedA = ParseVersionText(first, a);
    const bool parsedB = ParseVersionText(second, b);
    if (!parsedA) FUZZ_CHECK(a == sentinel);  // a refusal leaves the numbers alone
    if (!parsedB) FUZZ_CHECK(b == sentinel);
    CheckOrder(a, b);

    // Non-negative numbers read back from their own decimal form ('-' separates, so negative
    // numbers cannot be written this way).
    if (parsedA && std::all_of(a.leading.begin(), a.leading.end(), [](int n) { return n >= 0; })) {
        VersionNumbers again = sentinel;
        FUZZ_CHECK(ParseVersionText(Format(a, true), again) && again == a);
    }
    return 0;
}
