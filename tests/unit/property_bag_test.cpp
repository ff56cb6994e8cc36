#include "core/property_bag.h"

#include <cctype>
#include <ostream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using CORE::PropertyBag;

const std::wstring kBag = L"<PROPERTYBAG>";
const std::wstring kEnd = L"</PROPERTYBAG>";

std::wstring Repeat(const std::wstring& piece, int times) {
    std::wstring text;
    for (int i = 0; i < times; ++i) text += piece;
    return text;
}

// `levels` bags nested through items named "n", the innermost one empty.
std::wstring Nested(int levels) {
    return Repeat(L"<PROPERTYBAG><ITEM name=\"n\">", levels - 1) + L"<PROPERTYBAG/>" +
           Repeat(L"</ITEM></PROPERTYBAG>", levels - 1);
}

class PropertyBagTest : public ToolTest {
protected:
    std::wstring Failure(const std::wstring& message, unsigned line, unsigned col) const {
        return L"PropertyBag Parse failed: " + message + L", line=" + std::to_wstring(line) +
               L", col=" + std::to_wstring(col);
    }

    // The line the caller logs for the last failed parse.
    bool Failed(const std::wstring& line) const { return L"PropertyBag Parse failed: " + bag_.ParseError() == line; }

    PropertyBag bag_;
};

struct BadDocument {
    const wchar_t* text;
    const wchar_t* message;
    unsigned line;
    unsigned col;
};

void PrintTo(const BadDocument& bad, std::ostream* out) {
    *out << testing::PrintToString(std::wstring(bad.text)) << " -> line " << bad.line << ", col " << bad.col;
}

// "expected_start_of_item_4": the message, then the row for uniqueness.
std::string CaseName(const ::testing::TestParamInfo<BadDocument>& info) {
    std::string name;
    for (const wchar_t* c = info.param.message; *c; ++c)
        name += (*c < 0x80 && std::isalnum(static_cast<unsigned char>(*c))) ? static_cast<char>(*c) : '_';
    return name + "_" + std::to_string(info.index);
}

class PropertyBagErrorTest : public PropertyBagTest, public ::testing::WithParamInterface<BadDocument> {};

TEST_P(PropertyBagErrorTest, LogsMessageWherePieceBeginsAndLeavesBagEmpty) {
    const BadDocument& bad = GetParam();
    EXPECT_FALSE(bag_.Parse(bad.text, true));
    EXPECT_TRUE(Failed(Failure(bad.message, bad.line, bad.col))) << bag_.ParseError();
    EXPECT_FALSE(bag_.HasItems());
}

// Columns: "<PROPERTYBAG>" fills 1-13, so the first item starts at 14 and its attributes at 20.
INSTANTIATE_TEST_SUITE_P(
    EveryMessage, PropertyBagErrorTest,
    ::testing::Values(
        BadDocument{L"hello", L"expected start of property bag", 1, 1},
        BadDocument{L" \r\n  <ITEM name=\"a\"/>", L"expected start of property bag", 2, 3},
        BadDocument{L"<PROPERTYBA/>", L"expected start of property bag", 1, 1},
        BadDocument{L"<PROPERTYBAG version=\"1\"", L"expected start of property bag", 1, 1},
        BadDocument{L"<PROPERTYBAG>text</PROPERTYBAG>", L"expected start of item", 1, 14},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"a\"/>  <I/></PROPERTYBAG>", L"expected start of item", 1, 32},
        BadDocument{L"<PROPERTYBAG><ITEM =\"a\"/></PROPERTYBAG>", L"empty attribute name", 1, 20},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"a\"", L"empty attribute name", 1, 28},
        BadDocument{L"<PROPERTYBAG><ITEM name \"a\"/></PROPERTYBAG>", L"expected equal sign after attribute name", 1, 25},
        BadDocument{L"<PROPERTYBAG><ITEM name=a/></PROPERTYBAG>", L"expected start quote", 1, 25},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"a/></PROPERTYBAG>", L"expected ending quote", 1, 25},
        BadDocument{L"<PROPERTYBAG><ITEM name='a\"/></PROPERTYBAG>", L"expected ending quote", 1, 25},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"\"/></PROPERTYBAG>", L"attribute value is mandatory", 1, 25},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"a\" value=\"b\"/></PROPERTYBAG>",
                    L"unknown attribute name (may be missing equal sign or quote's)", 1, 29},
        BadDocument{L"<PROPERTYBAG><ITEM Name=\"a\"/></PROPERTYBAG>",
                    L"unknown attribute name (may be missing equal sign or quote's)", 1, 20},
        BadDocument{L"<PROPERTYBAG>\n  <ITEM type=\"STRING\">x</ITEM>\n</PROPERTYBAG>", L"name attribute is mandatory", 2, 3},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"a\">abc</PROPERTYBAG>", L"expected end of item", 1, 29},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"a\">abc</item></PROPERTYBAG>", L"expected end of item", 1, 29},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"s\"><PROPERTYBAG></PROPERTYBAG>x</ITEM></PROPERTYBAG>",
                    L"expected end of sub bag", 1, 56},
        BadDocument{L"<PROPERTYBAG><ITEM name=\"a\"/>", L"expected end of property bag", 1, 30},
        BadDocument{L"<PROPERTYBAG></ITEM>", L"expected end of property bag", 1, 14},
        BadDocument{L"<PROPERTYBAG/>x", L"un-expected data after property bag", 1, 15},
        BadDocument{L"<PROPERTYBAG></PROPERTYBAG>\n\t x", L"un-expected data after property bag", 2, 6},
        // Tabs move to the next column of 1, 5, 9, ...; a carriage return is an ordinary character.
        BadDocument{L"<PROPERTYBAG>\r\n\t<ITEM type=\"a\"/>", L"name attribute is mandatory", 2, 5},
        BadDocument{L"<PROPERTYBAG>\r\n<ITEM\tname=\"a\"\t?/>",
                    L"unknown attribute name (may be missing equal sign or quote's)", 2, 21}),
    CaseName);

TEST_F(PropertyBagTest, EmptyForms) {
    for (const wchar_t* text : {L"", L" \t\r\n", L"<PROPERTYBAG/>", L"<PROPERTYBAG/> \r\n \n",
                                L"<PROPERTYBAG></PROPERTYBAG>", L"\n<PROPERTYBAG version='1'>\n</PROPERTYBAG>\n",
                                L"<PROPERTYBAG version='1'/>"}) {
        EXPECT_TRUE(bag_.Parse(text, true)) << text;
        EXPECT_FALSE(bag_.HasItems()) << text;
        EXPECT_TRUE(bag_.ParseError().empty()) << text;
    }
}

TEST_F(PropertyBagTest, ItemsKeepNameTypeAndTextInOrder) {
    ASSERT_TRUE(bag_.Parse(L"<PROPERTYBAG>\r\n"
                           L"  <ITEM name=\"A\" type=\"STRING\"> x<y </ITEM>\r\n"
                           L"  <ITEM name='say \"hi\"' type = 'BINARY' >00ff</ITEM>\r\n"
                           L"  <ITEM name=\"empty\"/>\r\n"
                           L"</PROPERTYBAG>",
                           true));
    const auto& items = bag_.Items();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].name, L"A");
    EXPECT_EQ(items[0].type, L"STRING");
    EXPECT_EQ(items[0].value, L" x<y ");
    EXPECT_EQ(items[1].name, L"say \"hi\"");
    EXPECT_EQ(items[1].type, L"BINARY");
    EXPECT_EQ(items[1].value, L"00ff");
    EXPECT_EQ(items[2].name, L"empty");
    EXPECT_EQ(items[2].value, L"");
    EXPECT_EQ(items[2].subBag, nullptr);
}

TEST_F(PropertyBagTest, EntitiesInTextAndAttributes) {
    ASSERT_TRUE(bag_.Parse(kBag + L"<ITEM name='a&amp;b'>a&amp;b</ITEM>"
                                  L"<ITEM name='all'>&lt;&gt;&amp;&quot;&apos;</ITEM>"
                                  L"<ITEM name='kept'>&foo; &LT; &lt &amp;lt; &#65; &</ITEM>" + kEnd,
                           true));
    std::wstring value;
    EXPECT_EQ(bag_.FindNextItem(L"a&b", value, 0), 1u);
    EXPECT_EQ(value, L"a&b");
    EXPECT_EQ(bag_.FindNextItem(L"all", value, 0), 2u);
    EXPECT_EQ(value, L"<>&\"'");
    EXPECT_EQ(bag_.FindNextItem(L"kept", value, 0), 3u);
    EXPECT_EQ(value, L"&foo; &LT; &lt &lt; &#65; &");
}

TEST_F(PropertyBagTest, SubBags) {
    ASSERT_TRUE(bag_.Parse(kBag + L"<ITEM name='SUB'>\n  <PROPERTYBAG><ITEM name='inner'>v</ITEM></PROPERTYBAG>\n</ITEM>"
                                  L"<ITEM name='EMPTY'><PROPERTYBAG/></ITEM>"
                                  L"<ITEM name='after'>w</ITEM>" + kEnd,
                           true));
    const auto& items = bag_.Items();
    ASSERT_EQ(items.size(), 3u);
    ASSERT_NE(items[0].subBag, nullptr);
    EXPECT_EQ(items[0].value, L"");
    std::wstring value;
    EXPECT_EQ(items[0].subBag->FindNextItem(L"inner", value, 0), 1u);
    EXPECT_EQ(value, L"v");
    ASSERT_NE(items[1].subBag, nullptr);
    EXPECT_FALSE(items[1].subBag->HasItems());
    EXPECT_EQ(bag_.FindNextItem(L"inner", value, 0), 0u) << "sub-bags are not searched";
    EXPECT_EQ(bag_.FindNextItem(L"after", value, 0), 3u);
}

TEST_F(PropertyBagTest, FindNextItemWalksRepeatedNamesInOrder) {
    ASSERT_TRUE(bag_.Parse(kBag + L"<ITEM name='THUMBPRINT'>aa:01</ITEM><ITEM name='OTHER'>x</ITEM>"
                                  L"<ITEM name='THUMBPRINT'>bb:02</ITEM><ITEM name='thumbprint'>no</ITEM>"
                                  L"<ITEM name='THUMBPRINT'>cc:03</ITEM>" + kEnd,
                           true));
    std::vector<std::wstring> found;
    std::vector<std::size_t> positions;
    std::wstring value;
    for (std::size_t position = 0; (position = bag_.FindNextItem(L"THUMBPRINT", value, position)) != 0;) {
        positions.push_back(position);
        found.push_back(value);
        ASSERT_LE(found.size(), 3u);
    }
    EXPECT_EQ(positions, (std::vector<std::size_t>{1, 3, 5}));
    EXPECT_EQ(found, (std::vector<std::wstring>{L"aa:01", L"bb:02", L"cc:03"}));
    EXPECT_EQ(bag_.FindNextItem(L"THUMBPRINT", value, 5), 0u);
    EXPECT_EQ(bag_.FindNextItem(L"THUMBPRINT", value, 99), 0u);
}

TEST_F(PropertyBagTest, CaseInsensitiveModeFoldsKeywordsOnly) {
    const std::wstring text = L"<propertybag><item NAME='Key' Type='t'>v</Item></PropertyBag>";
    ASSERT_TRUE(bag_.Parse(text, false));
    std::wstring value;
    EXPECT_EQ(bag_.FindNextItem(L"Key", value, 0), 1u);
    EXPECT_EQ(value, L"v");
    EXPECT_EQ(bag_.Items()[0].type, L"t");
    EXPECT_EQ(bag_.FindNextItem(L"KEY", value, 0), 0u) << "item names are data, not keywords";

    EXPECT_FALSE(bag_.Parse(text, true));
    EXPECT_TRUE(Failed(Failure(L"expected start of property bag", 1, 1)));
}

TEST_F(PropertyBagTest, FailureAfterSuccessEmptiesBag) {
    ASSERT_TRUE(bag_.Parse(kBag + L"<ITEM name='THUMBPRINT'>aa</ITEM>" + kEnd, true));
    ASSERT_TRUE(bag_.HasItems());
    EXPECT_FALSE(bag_.Parse(kBag + L"<ITEM name='THUMBPRINT'>bb</ITEM>" + kEnd + L"x", true));
    EXPECT_FALSE(bag_.HasItems());
    std::wstring value = L"untouched";
    EXPECT_EQ(bag_.FindNextItem(L"THUMBPRINT", value, 0), 0u);
    EXPECT_EQ(value, L"untouched");
}

TEST_F(PropertyBagTest, NestingIsCappedAtSixtyFourBags) {
    ASSERT_TRUE(bag_.Parse(Nested(64), true));
    const PropertyBag* bag = &bag_;
    int depth = 1;
    for (; bag->HasItems(); ++depth) bag = bag->Items()[0].subBag.get();
    EXPECT_EQ(depth, 64);

    // Each level takes 28 columns; the 65th "<PROPERTYBAG" is where the parser stops.
    EXPECT_FALSE(bag_.Parse(Nested(65), true));
    EXPECT_TRUE(Failed(Failure(L"expected end of item", 1, 64 * 28 + 1)));
    EXPECT_FALSE(bag_.Parse(Nested(100000), true));
    EXPECT_FALSE(bag_.HasItems());
}

TEST_F(PropertyBagTest, HugeUnterminatedPiecesFailCleanly) {
    const std::wstring huge(1000000, L'x');
    EXPECT_FALSE(bag_.Parse(kBag + L"<ITEM name='a'>" + huge, true));
    EXPECT_TRUE(Failed(Failure(L"expected end of item", 1, 29)));
    EXPECT_FALSE(bag_.Parse(kBag + L"<ITEM name='" + huge, true));
    EXPECT_TRUE(Failed(Failure(L"expected ending quote", 1, 25)));
    EXPECT_FALSE(bag_.Parse(L"<PROPERTYBAG" + huge, true));
    EXPECT_TRUE(Failed(Failure(L"expected start of property bag", 1, 1)));

    ASSERT_TRUE(bag_.Parse(kBag + L"<ITEM name='a'>" + huge + L"</ITEM>" + kEnd, true));
    EXPECT_EQ(bag_.Items()[0].value.size(), huge.size());
}

}  // namespace
