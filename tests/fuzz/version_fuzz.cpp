// Version texts from the update key, override files and the installer database: the number readers
// agree with the C runtime they imitate, and the comparison is an order.
#include <fmt/xchar.h>

#include <climits>
#include <cwchar>

#include "agent/version.h"
#include "fuzz_check.h"

FUZZ_TARGET {
    const std::wstring text = fuzz::Widened(data, size);
    // glibc's wcstol has 64-bit longs; clamped to 32 bits it is the Windows runtime's reading. Only
    // for ASCII text without NULs, where the two agree on white space and digits.
    const std::int32_t value = ReadLongAutoBase(text);
    if (std::ranges::none_of(text, [](wchar_t c) { return c == 0 || c >= 0x80; }))
        FUZZ_CHECK(value == std::clamp<long long>(std::wcstoll(text.c_str(), nullptr, 0), INT32_MIN,
                                                  INT32_MAX));
    if (value > 0 && value < INT32_MAX)
        FUZZ_CHECK(ReadUnsignedLongAutoBase(text) == std::uint32_t(value));
    // Two versions from one input, split at the first '|'. A refusal leaves the numbers alone.
    const auto [first, second] = fuzz::SplitAt(std::wstring_view(text), L'|');
    const VersionNumbers sentinel{{-7, -7, -7}, 7};
    VersionNumbers a = sentinel, b = sentinel;
    FUZZ_CHECK((ParseVersionText(first, a) || a == sentinel) &&
               (ParseVersionText(second, b) || b == sentinel));
    // No upgrade to the same version, no known need cleared, never both ways between positives.
    FUZZ_CHECK(!UpgradeNeeded(a, a, false) && UpgradeNeeded(a, b, true));
    if (std::ranges::min(a.leading) > 0 && std::ranges::min(b.leading) > 0)
        FUZZ_CHECK(!(UpgradeNeeded(a, b, false) && UpgradeNeeded(b, a, false)));
    // Non-negative numbers (so not the sentinel) read back from their decimal form.
    if (std::ranges::min(a.leading) < 0) return;
    const auto written =
        fmt::format(L"{}.{}.{}-{}", a.leading[0], a.leading[1], a.leading[2], a.build);
    VersionNumbers again = sentinel;
    FUZZ_CHECK(ParseVersionText(written, again) && again == a);
}
