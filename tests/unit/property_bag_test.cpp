#include "core/property_bag.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using CORE::PropertyBag;

std::wstring Repeat(const std::wstring& piece, int times) {
    std::wstring text;
    while (times-- > 0) text += piece;
    return text;
}

// `levels` bags nested through items named "n", the innermost one empty.
std::wstring Nested(int levels) {
    return Repeat(L"<PROPERTYBAG><ITEM name=\"n\">", levels - 1) + L"<PROPERTYBAG/>" +
           Repeat(L"</ITEM></PROPERTYBAG>", levels - 1);
}

const std::wstring kHuge(1000000, L'x');

// "name:type=value{sub bag};" per item, in order.
std::wstring Dump(const PropertyBag& bag) {
    std::wstring out;
    for (const auto& item : bag.Items()) {
        out += item.name + (item.type.empty() ? L"" : L":" + item.type) + L"=" + item.value;
        out += (item.subBag ? L"{" + Dump(*item.subBag) + L"}" : L"") + L";";
    }
    return out;
}

TEST(PropertyBagTest, ParsesItemsInOrder) {
    const std::tuple<std::wstring, bool, std::wstring> rows[] = {
        {L" \t\r\n", true, L""},
        {L"<PROPERTYBAG/> \r\n \n", true, L""},
        {L"\n<PROPERTYBAG version='1'>\n</PROPERTYBAG>\n", true, L""},
        {L"<PROPERTYBAG version='1'/>", true, L""},
        {L"<PROPERTYBAG>\r\n  <ITEM name=\"A\" type=\"STRING\"> x<y </ITEM>\r\n"
         L"  <ITEM name='say \"hi\"' type = 'BINARY' >00ff</ITEM>\r\n  <ITEM name=\"empty\"/>\r\n"
         L"</PROPERTYBAG>",
         true, L"A:STRING= x<y ;say \"hi\":BINARY=00ff;empty=;"},
        {L"<PROPERTYBAG><ITEM name='a&amp;b'>a&amp;b</ITEM>"
         L"<ITEM name='all'>&lt;&gt;&amp;&quot;&apos;</ITEM>"
         L"<ITEM name='kept'>&foo; &LT; &lt &amp;lt; &#65; &</ITEM></PROPERTYBAG>",
         true, L"a&b=a&b;all=<>&\"';kept=&foo; &LT; &lt &lt; &#65; &;"},
        {L"<PROPERTYBAG><ITEM name='SUB'>\n  <PROPERTYBAG><ITEM name='in'>v</ITEM></PROPERTYBAG>\n"
         L"</ITEM><ITEM name='EMPTY'><PROPERTYBAG/></ITEM><ITEM name='after'>w</ITEM>"
         L"</PROPERTYBAG>",
         true, L"SUB={in=v;};EMPTY={};after=w;"},
        {L"<propertybag><item NAME='Key' Type='t'>v</Item></PropertyBag>", false, L"Key:t=v;"},
        {Nested(64), true, Repeat(L"n={", 63) + Repeat(L"};", 63)},
        {L"<PROPERTYBAG><ITEM name='a'>" + kHuge + L"</ITEM></PROPERTYBAG>", true,
         L"a=" + kHuge + L";"},
    };
    for (const auto& [text, caseSensitive, items] : rows) {
        PropertyBag bag;
        EXPECT_TRUE(bag.Parse(text, caseSensitive)) << bag.ParseError();
        EXPECT_EQ(Dump(bag), items);
        EXPECT_EQ(bag.ParseError(), L"");
    }
}

TEST(PropertyBagTest, FindNextItemWalksOneExactNameOfTheTopBag) {
    PropertyBag bag;
    ASSERT_TRUE(bag.Parse(L"<PROPERTYBAG><ITEM name='THUMBPRINT'>aa</ITEM><ITEM name='O'>x</ITEM>"
                          L"<ITEM name='THUMBPRINT'>bb</ITEM><ITEM name='thumbprint'>no</ITEM>"
                          L"<ITEM name='S'><PROPERTYBAG><ITEM name='THUMBPRINT'>in</ITEM>"
                          L"</PROPERTYBAG></ITEM></PROPERTYBAG>",
                          true));
    std::wstring value;
    EXPECT_EQ(bag.FindNextItem(L"THUMBPRINT", value, 0), 1u);
    EXPECT_EQ(value, L"aa");
    EXPECT_EQ(bag.FindNextItem(L"THUMBPRINT", value, 1), 3u);
    EXPECT_EQ(value, L"bb");
    EXPECT_EQ(bag.FindNextItem(L"THUMBPRINT", value, 3), 0u);
    EXPECT_EQ(bag.FindNextItem(L"THUMBPRINT", value, 99), 0u);
    EXPECT_EQ(value, L"bb");

    // A failed parse leaves nothing of the one before.
    EXPECT_FALSE(bag.Parse(L"<PROPERTYBAG><ITEM name='THUMBPRINT'>cc</ITEM></PROPERTYBAG>x", true));
    EXPECT_FALSE(bag.HasItems());
    EXPECT_EQ(bag.FindNextItem(L"THUMBPRINT", value, 0), 0u);
}

const std::wstring kB = L"<PROPERTYBAG>";  // columns 1-13: the first item starts at 14
const wchar_t* const kUnknown = L"unknown attribute name (may be missing equal sign or quote's)";

// What the caller logs after "PropertyBag Parse failed: ". Tabs move to the next column of 1, 5,
// 9, ...; a carriage return is an ordinary character.
TEST(PropertyBagTest, RefusalNamesTheMessageWhereThePieceBegins) {
    // clang-format off
    const struct { std::wstring text; const wchar_t* message; unsigned line, col; } rows[] = {
        {L" \r\n  <ITEM name=\"a\"/>", L"expected start of property bag", 2, 3},
        {L"<PROPERTYBA/>", L"expected start of property bag", 1, 1},
        {L"<PROPERTYBAG version=\"1\"", L"expected start of property bag", 1, 1},
        {L"<propertybag/>", L"expected start of property bag", 1, 1},
        {kB + L"text</PROPERTYBAG>", L"expected start of item", 1, 14},
        {kB + L"<ITEM name=\"a\"/>  <I/></PROPERTYBAG>", L"expected start of item", 1, 32},
        {kB + L"<ITEM =\"a\"/></PROPERTYBAG>", L"empty attribute name", 1, 20},
        {kB + L"<ITEM name=\"a\"", L"empty attribute name", 1, 28},
        {kB + L"<ITEM name \"a\"/>", L"expected equal sign after attribute name", 1, 25},
        {kB + L"<ITEM name=a/></PROPERTYBAG>", L"expected start quote", 1, 25},
        {kB + L"<ITEM name='a\"/></PROPERTYBAG>", L"expected ending quote", 1, 25},
        {kB + L"<ITEM name=\"\"/></PROPERTYBAG>", L"attribute value is mandatory", 1, 25},
        {kB + L"<ITEM Name=\"a\"/></PROPERTYBAG>", kUnknown, 1, 20},
        {kB + L"\r\n<ITEM\tname=\"a\"\t?/>", kUnknown, 2, 21},
        {kB + L"\r\n\t<ITEM type=\"a\"/>", L"name attribute is mandatory", 2, 5},
        {kB + L"<ITEM name=\"a\">abc</item></PROPERTYBAG>", L"expected end of item", 1, 29},
        {kB + L"<ITEM name='a'>" + kHuge, L"expected end of item", 1, 29},
        // Each level takes 28 columns; the 65th "<PROPERTYBAG" is where the parser stops.
        {Nested(65), L"expected end of item", 1, 64 * 28 + 1},
        {kB + L"<ITEM name=\"s\"><PROPERTYBAG></PROPERTYBAG>x</ITEM></PROPERTYBAG>",
         L"expected end of sub bag", 1, 56},
        {kB + L"<ITEM name=\"a\"/>", L"expected end of property bag", 1, 30},
        {kB + L"</ITEM>", L"expected end of property bag", 1, 14},
        {kB + L"</PROPERTYBAG>\n\t x", L"un-expected data after property bag", 2, 6}};
    // clang-format on
    for (const auto& r : rows) {
        PropertyBag bag;
        EXPECT_FALSE(bag.Parse(r.text, true));
        EXPECT_EQ(bag.ParseError(), r.message + (L", line=" + std::to_wstring(r.line)) + L", col=" +
                                        std::to_wstring(r.col));
    }
}

}  // namespace
