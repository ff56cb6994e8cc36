#include "core/property_bag.h"

#include <cstdint>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "core/core_exception.h"
#include "core/format.h"

namespace CORE {

namespace {

// Nesting beyond this many bags (the document's own included) is refused. The document comes
// from outside, and a deep tree would cost stack both here and when the bag is destroyed; real
// metadata nests one or two levels.
constexpr std::size_t kMaxDepth = 64;

constexpr std::wstring_view kBagOpen = L"<PROPERTYBAG";
constexpr std::wstring_view kBagClose = L"</PROPERTYBAG>";
constexpr std::wstring_view kItemOpen = L"<ITEM";
constexpr std::wstring_view kItemClose = L"</ITEM>";

constexpr const wchar_t* kExpectedBagStart = L"expected start of property bag";
constexpr const wchar_t* kExpectedItemStart = L"expected start of item";
constexpr const wchar_t* kEmptyAttributeName = L"empty attribute name";
constexpr const wchar_t* kExpectedEqualSign = L"expected equal sign after attribute name";
constexpr const wchar_t* kExpectedStartQuote = L"expected start quote";
constexpr const wchar_t* kExpectedEndingQuote = L"expected ending quote";
constexpr const wchar_t* kValueMandatory = L"attribute value is mandatory";
constexpr const wchar_t* kUnknownAttribute =
    L"unknown attribute name (may be missing equal sign or quote's)";
constexpr const wchar_t* kNameMandatory = L"name attribute is mandatory";
constexpr const wchar_t* kExpectedItemEnd = L"expected end of item";
constexpr const wchar_t* kExpectedSubBagEnd = L"expected end of sub bag";
constexpr const wchar_t* kExpectedBagEnd = L"expected end of property bag";
constexpr const wchar_t* kDataAfterBag = L"un-expected data after property bag";

bool IsWhitespace(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

bool IsQuote(wchar_t c) { return c == L'"' || c == L'\''; }

// Attribute names run up to whatever can follow them in a tag.
bool IsNameChar(wchar_t c) {
    return !IsWhitespace(c) && !IsQuote(c) && c != L'=' && c != L'>' && c != L'/' && c != L'<';
}

// Keywords are ASCII markup, so an ASCII fold is the right notion of case here: it does not
// depend on the user's locale (a Turkish locale does not fold "item" to "ITEM") and it compares in
// place, without building strings at every position of the document.
wchar_t FoldAscii(wchar_t c) { return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c; }

bool IsHighSurrogate(wchar_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(wchar_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Only the five named entities are replaced; anything else after an ampersand (numeric references
// included) stays as written, so no text is lost.
std::wstring DecodeEntities(std::wstring_view raw) {
    struct Entity {
        std::wstring_view name;
        wchar_t character;
    };
    static constexpr Entity kEntities[] = {
        {L"lt;", L'<'}, {L"gt;", L'>'}, {L"amp;", L'&'}, {L"quot;", L'"'}, {L"apos;", L'\''}};

    std::wstring text;
    text.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size();) {
        bool replaced = false;
        if (raw[i] == L'&') {
            const std::wstring_view rest = raw.substr(i + 1);
            for (const Entity& entity : kEntities) {
                if (rest.substr(0, entity.name.size()) == entity.name) {
                    text += entity.character;
                    i += 1 + entity.name.size();
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced) text += raw[i++];
    }
    return text;
}

}  // namespace

// Recursive descent over the document, one pass, never moving backwards by more than the
// whitespace it looked past, so the work stays linear in the length of the text.
class PropertyBag::Parser {
public:
    Parser(std::wstring_view text, bool caseSensitive) : text_(text), caseSensitive_(caseSensitive) {}

    bool Document(std::vector<Item>& items) {
        SkipWhitespace();
        if (AtEnd()) return true;  // an empty or all-blank text is an empty bag
        if (!Bag(items, 1)) return false;
        SkipWhitespace();
        if (!AtEnd()) return Fail(kDataAfterBag, pos_);
        return true;
    }

    // "<message>, line=<l>, col=<c>" for the failure that stopped the parse.
    std::wstring FailureText() const {
        std::uint32_t line = 1;
        std::uint32_t column = 1;
        const std::size_t end = errorAt_ < text_.size() ? errorAt_ : text_.size();
        for (std::size_t i = 0; i < end; ++i) {
            const wchar_t c = text_[i];
            if (c == L'\n') {
                ++line;
                column = 1;
            } else if (c == L'\t') {
                column = (column - 1) / 4 * 4 + 5;  // next stop on the grid 1, 5, 9, ...
            } else if (!(IsLowSurrogate(c) && i > 0 && IsHighSurrogate(text_[i - 1]))) {
                ++column;  // a surrogate pair is one character
            }
        }
        return core::Format(L"%s, line=%u, col=%u", error_, line, column);
    }

private:
    // At "<PROPERTYBAG": the bag's start tag, its items and its end tag. "<PROPERTYBAG/>", with or
    // without attributes before the slash, is an empty bag.
    bool Bag(std::vector<Item>& items, std::size_t depth) {
        const std::size_t start = pos_;
        if (!Keyword(kBagOpen)) return Fail(kExpectedBagStart, start);
        const std::size_t tagEnd = text_.find(L'>', pos_);
        if (tagEnd == std::wstring_view::npos) return Fail(kExpectedBagStart, start);
        const bool selfClosing = tagEnd > pos_ && text_[tagEnd - 1] == L'/';
        pos_ = tagEnd + 1;
        if (selfClosing) return true;

        for (;;) {
            SkipWhitespace();
            if (Keyword(kBagClose)) return true;
            if (AtKeyword(kItemOpen)) {
                if (!ItemElement(items, depth)) return false;
                continue;
            }
            // A closing tag of the wrong kind, or none at all, means the bag was not closed.
            if (AtEnd() || text_.substr(pos_, 2) == L"</") return Fail(kExpectedBagEnd, pos_);
            return Fail(kExpectedItemStart, pos_);
        }
    }

    // At "<ITEM": attributes, then "/>" or ">" with a sub-bag or a text value and "</ITEM>".
    bool ItemElement(std::vector<Item>& items, std::size_t depth) {
        const std::size_t start = pos_;
        pos_ += kItemOpen.size();
        Item item;
        bool named = false;
        bool hasValue = false;
        for (;;) {
            SkipWhitespace();
            if (Literal(L"/>")) break;
            if (Literal(L">")) {
                hasValue = true;
                break;
            }
            if (!Attribute(item, named)) return false;
        }
        if (!named) return Fail(kNameMandatory, start);
        if (hasValue && !Value(item, depth)) return false;
        items.push_back(std::move(item));
        return true;
    }

    // name="..." or type='...'. An unknown name is reported before its "=" is looked for: more
    // often than not it is the remains of a neighbour whose "=" or quotes are missing.
    bool Attribute(Item& item, bool& named) {
        const std::size_t nameStart = pos_;
        while (!AtEnd() && IsNameChar(text_[pos_])) ++pos_;
        if (pos_ == nameStart) return Fail(kEmptyAttributeName, nameStart);
        const std::wstring_view name = text_.substr(nameStart, pos_ - nameStart);
        const bool isName = KeywordEquals(name, L"name");
        if (!isName && !KeywordEquals(name, L"type")) return Fail(kUnknownAttribute, nameStart);

        SkipWhitespace();
        if (!Literal(L"=")) return Fail(kExpectedEqualSign, pos_);
        SkipWhitespace();
        if (AtEnd() || !IsQuote(text_[pos_])) return Fail(kExpectedStartQuote, pos_);
        const std::size_t quote = pos_;
        const std::size_t closing = text_.find(text_[quote], quote + 1);
        if (closing == std::wstring_view::npos) return Fail(kExpectedEndingQuote, quote);
        if (closing == quote + 1) return Fail(kValueMandatory, quote);

        // A repeated attribute replaces the earlier one.
        (isName ? item.name : item.type) = DecodeEntities(text_.substr(quote + 1, closing - quote - 1));
        named = named || isName;
        pos_ = closing + 1;
        return true;
    }

    // After the start tag's ">": a value that begins (past blanks) with "<PROPERTYBAG" is a
    // sub-bag; anything else is text up to the first "</ITEM>".
    bool Value(Item& item, std::size_t depth) {
        const std::size_t valueStart = pos_;
        SkipWhitespace();
        if (AtKeyword(kBagOpen)) {
            // Too deep: the item may only hold text here, and its end is what was due.
            if (depth >= kMaxDepth) return Fail(kExpectedItemEnd, pos_);
            auto subBag = std::make_unique<PropertyBag>();
            if (!Bag(subBag->items_, depth + 1)) return false;
            SkipWhitespace();
            if (!Keyword(kItemClose)) return Fail(kExpectedSubBagEnd, pos_);
            item.subBag = std::move(subBag);
            return true;
        }
        const std::size_t valueEnd = FindKeyword(kItemClose, valueStart);
        if (valueEnd == std::wstring_view::npos) return Fail(kExpectedItemEnd, valueStart);
        item.value = DecodeEntities(text_.substr(valueStart, valueEnd - valueStart));
        pos_ = valueEnd + kItemClose.size();
        return true;
    }

    bool AtEnd() const { return pos_ >= text_.size(); }

    void SkipWhitespace() {
        while (!AtEnd() && IsWhitespace(text_[pos_])) ++pos_;
    }

    // Exact punctuation, consumed when present.
    bool Literal(std::wstring_view literal) {
        if (text_.substr(pos_, literal.size()) != literal) return false;
        pos_ += literal.size();
        return true;
    }

    bool KeywordEquals(std::wstring_view candidate, std::wstring_view keyword) const {
        if (candidate.size() != keyword.size()) return false;
        if (caseSensitive_) return candidate == keyword;
        for (std::size_t i = 0; i < candidate.size(); ++i)
            if (FoldAscii(candidate[i]) != FoldAscii(keyword[i])) return false;
        return true;
    }

    bool KeywordAt(std::size_t at, std::wstring_view keyword) const {
        return at <= text_.size() && KeywordEquals(text_.substr(at, keyword.size()), keyword);
    }

    bool AtKeyword(std::wstring_view keyword) const { return KeywordAt(pos_, keyword); }

    bool Keyword(std::wstring_view keyword) {
        if (!AtKeyword(keyword)) return false;
        pos_ += keyword.size();
        return true;
    }

    // Keywords are short and fixed, so trying each position is linear in the text searched.
    std::size_t FindKeyword(std::wstring_view keyword, std::size_t from) const {
        if (caseSensitive_) return text_.find(keyword, from);
        for (std::size_t at = from; at + keyword.size() <= text_.size(); ++at)
            if (KeywordAt(at, keyword)) return at;
        return std::wstring_view::npos;
    }

    bool Fail(const wchar_t* message, std::size_t at) {
        error_ = message;
        errorAt_ = at;
        return false;
    }

    std::wstring_view text_;
    bool caseSensitive_;
    std::size_t pos_ = 0;
    const wchar_t* error_ = L"";
    std::size_t errorAt_ = 0;
};

bool PropertyBag::Parse(const std::wstring& text, bool caseSensitive) {
    items_.clear();
    parseError_.clear();
    try {
        std::vector<Item> items;
        Parser parser(text, caseSensitive);
        if (!parser.Document(items)) {
            parseError_ = parser.FailureText();
            return false;
        }
        items_ = std::move(items);
        return true;
    } catch (const std::bad_alloc&) {
        items_.clear();
        throw coreException("OutOfMem");
    }
}

bool PropertyBag::HasItems() const { return !items_.empty(); }

std::size_t PropertyBag::FindNextItem(const std::wstring& name, std::wstring& value,
                                      std::size_t position) const {
    for (std::size_t index = position; index < items_.size(); ++index) {
        if (items_[index].name == name) {
            value = items_[index].value;
            return index + 1;
        }
    }
    return 0;
}

}  // namespace CORE
