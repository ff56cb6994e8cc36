// Version texts from the update key, override files and the installer database: the number readers
// agree with the C runtime they imitate, and the comparison is an order.
#include <cerrno>
#include <climits>
#include <cwchar>

#include "agent/version.h"
#include "fuzz_check.h"

static bool AllOf(const VersionNumbers& v, bool (*test)(int)) {
    return std::all_of(v.leading.begin(), v.leading.end(), test);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring text = fuzz::Widened(data, size);
    // glibc's wcstol has 64-bit longs; clamped to 32 bits it is the Windows runtime's reading. Only
    // for ASCII text without NULs, where the two agree on white space and digits.
    if (std::none_of(text.begin(), text.end(), [](wchar_t c) { return c == 0 || c >= 0x80; }))
        FUZZ_CHECK(
            ReadLongAutoBase(text) ==
            std::clamp<long long>(std::wcstoll(text.c_str(), nullptr, 0), INT32_MIN, INT32_MAX));
    const std::int32_t signedValue = ReadLongAutoBase(text);
    if (signedValue > 0 && signedValue < INT32_MAX)
        FUZZ_CHECK(ReadUnsignedLongAutoBase(text) == static_cast<std::uint32_t>(signedValue));

    // Two versions from one input, split at the first '|'. A refusal leaves the numbers alone.
    const auto [first, second] = fuzz::SplitAt(std::wstring_view(text), L'|');
    const VersionNumbers sentinel{{-7, -7, -7}, 7};
    VersionNumbers a = sentinel;
    VersionNumbers b = sentinel;
    if (!ParseVersionText(first, a)) FUZZ_CHECK(a == sentinel);
    if (!ParseVersionText(second, b)) FUZZ_CHECK(b == sentinel);
    // The comparison never upgrades to the same version nor clears a known need, and between
    // positive versions it never goes both ways.
    FUZZ_CHECK(!UpgradeNeeded(a, a, false) && UpgradeNeeded(a, b, true));
    const auto positive = [](int n) { return n > 0; };
    if (AllOf(a, positive) && AllOf(b, positive))
        FUZZ_CHECK(!(UpgradeNeeded(a, b, false) && UpgradeNeeded(b, a, false)));
    // Non-negative numbers read back from their own decimal form ('-' separates, so negative
    // numbers cannot be written this way).
    if (AllOf(a, [](int n) { return n >= 0; })) {  // so not the sentinel
        VersionNumbers again = sentinel;
        const std::wstring written =
            std::to_wstring(a.leading[0]) + L"." + std::to_wstring(a.leading[1]) + L"." +
            std::to_wstring(a.leading[2]) + L"-" + std::to_wstring(a.build);
        FUZZ_CHECK(ParseVersionText(written, again) && again == a);
    }
    return 0;
}
