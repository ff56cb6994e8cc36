#include "core/text.h"

#include <gtest/gtest.h>

#include <array>

#include "common/unique_handle.h"
#include "core/core_exception.h"
#include "core/format.h"

namespace {

// Each maximal ill-formed subpart costs one U+FFFD in the lenient reading, and the strict one
// refuses the text; everything well-formed around it is kept, and written back as it was read.
TEST(Utf8, StrictRefusesAndLenientReplacesEachBadSequence) {
    const std::pair<std::string, std::wstring> rows[] = {
        {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", L"a\u00e9\u20ac\U0001F600"},
        {"\x80\xBF", L"\uFFFD\uFFFD"},                      // lone continuation bytes
        {"caf\xC3", L"caf\uFFFD"},                          // cut at the end
        {"\xE2\x82\x41\xC3\xA9", L"\uFFFDA\u00e9"},         // cut before a character
        {"\xF0\x9F\x98\xC3\xA9", L"\uFFFD\u00e9"},          // cut 4-byte sequence
        {"\xC0\xAF", L"\uFFFD\uFFFD"},                      // overlong '/'
        {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},            // overlong, 3 bytes
        {"\xF0\x8F\xBF\xBF", L"\uFFFD\uFFFD\uFFFD\uFFFD"},  // overlong, 4 bytes
        {"\xED\xA0\x80x", L"\uFFFD\uFFFD\uFFFDx"},          // a surrogate
        {"\xED\x9F\xBF", L"\uD7FF"},                        // the last before them
        {"\xF4\x8F\xBF\xBF", L"\U0010FFFF"},                // the last code point
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},  // past it
        {"\xF5\xFE", L"\uFFFD\uFFFD"}};
    for (const auto& [utf8, wide] : rows) {
        EXPECT_EQ(core::WideFromUtf8Lenient(utf8), wide) << utf8;
        if (wide.find(L'\uFFFD') != std::wstring::npos) {
            EXPECT_THROW(core::WideFromUtf8(utf8), CORE::coreException) << utf8;
        } else {
            EXPECT_EQ(core::Utf8FromWide(core::WideFromUtf8(utf8)), utf8);
        }
    }
    EXPECT_THROW(core::Utf8FromWide(std::wstring(1, static_cast<wchar_t>(0xD800))),
                 CORE::coreException);
    try {  // a guarded step logs this text when it fails
        core::WideFromUtf8("\xFF");
        ADD_FAILURE();
    } catch (const CORE::coreException& e) {
        EXPECT_STREQ(e.what(), "to_wstr Failed");
    }
}

TEST(Utf16Bytes, KeepEmbeddedNulsAndDropAnOddByte) {
    const auto bytes = core::Utf16BytesFromWide(std::wstring(L"a\0b", 3), true);
    EXPECT_EQ(bytes, (std::vector<std::uint8_t>{'a', 0, 0, 0, 'b', 0, 0, 0}));
    auto odd = bytes;
    odd.push_back('x');
    EXPECT_EQ(core::WideFromUtf16Bytes(odd), std::wstring(L"a\0b\0", 4));
}

TEST(Text, PathJoinTrimSplitAndCase) {
    const std::array<const wchar_t*, 3> joins[] = {
        {L"C:\\logs", L"tool", L"C:\\logs\\tool"}, {L"C:\\logs\\", L"u", L"C:\\logs\\u"},
        {L"C:\\logs", L"\\x", L"C:\\logs\\x"}, {L"C:\\logs", L"/a/b", L"C:\\logs\\a\\b"},
        {L"", L"a/b", L"a\\b"}, {L"C:\\logs", L"", L"C:\\logs\\"},
    };
    for (const auto& [left, right, joined] : joins) EXPECT_EQ(core::PathJoin(left, right), joined);
    EXPECT_EQ(core::Trim(L" \t\r\nx y\n "), L"x y");
    EXPECT_EQ(core::Trim(L" \t "), L"");
    EXPECT_EQ(core::Split(L"a==b", L'='), (std::vector<std::wstring>{L"a", L"", L"b"}));
    EXPECT_TRUE(core::ContainsIgnoreCase(L"x PREFLIGHTCHECK_on=1", L"preflightcheck_ON=1"));
    EXPECT_EQ(core::FileNameOf(L"C:\\dir\\tool.exe"), L"tool.exe");
    EXPECT_EQ(core::FileNameOf(L"tool.exe"), L"tool.exe");
}

TEST(ParseDecimal, HoldsItsRangeAtBothEnds) {
    std::int32_t i = 0;
    EXPECT_TRUE(core::ParseInt32(L"2147483647", i));
    EXPECT_EQ(i, 2147483647);
    EXPECT_TRUE(core::ParseInt32(L"-2147483648", i));
    EXPECT_EQ(i, INT32_MIN);
    EXPECT_FALSE(core::ParseInt32(L"2147483648", i));
    EXPECT_FALSE(core::ParseInt32(L"-2147483649", i));
    EXPECT_FALSE(core::ParseInt32(L" 1", i));
    EXPECT_FALSE(core::ParseInt32(L"-", i));
    std::uint32_t u = 0;
    EXPECT_TRUE(core::ParseUint32(L"4294967295", u));
    EXPECT_FALSE(core::ParseUint32(L"4294967296", u));
    EXPECT_FALSE(core::ParseUint32(L"-1", u));
    std::int64_t l = 0;
    EXPECT_FALSE(core::ParseInt64(L"18446744073709551616", l));
}

// %s with wide strings of either kind is pinned by every log line the other tests read.
TEST(Format, APatternThatDoesNotFitItsArgumentsIsKeptReadable) {
    EXPECT_EQ(core::Format(L"%d", L"text"), L"%d [bad format]");
}

// A fake handle kind: integers, -1 meaning none, closes recorded.
std::vector<int> g_closed;
struct IntTraits {
    using Type = int;
    static int Invalid() noexcept { return -1; }
    static void Close(int h) noexcept { g_closed.push_back(h); }
};
using UniqueInt = common::UniqueHandle<IntTraits>;

TEST(UniqueHandle, ClosesExactlyOnceAcrossMovesResetsAndRelease) {
    g_closed.clear();
    {
        UniqueInt a(3);
        UniqueInt b(std::move(a));
        EXPECT_FALSE(a.valid());
        UniqueInt c(4);
        c = std::move(b);  // closes 4, takes 3
        EXPECT_EQ(c.get(), 3);
        *c.put() = 5;      // closes 3
        UniqueInt d(6);
        EXPECT_EQ(d.release(), 6);  // never closed
        UniqueInt none;
        none.reset();
    }
    EXPECT_EQ(g_closed, (std::vector<int>{4, 3, 5}));
}

}  // namespace
