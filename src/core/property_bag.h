#pragma once
// The property bag: a small XML-like key/value document. The update key's METADATA value arrives
// in this format, written by an outside service, so the parser treats its input as untrusted.
//
//   <PROPERTYBAG>
//     <ITEM name="THUMBPRINT" type="STRING">ab:cd:...</ITEM>
//     <ITEM name="SUB"><PROPERTYBAG>...</PROPERTYBAG></ITEM>
//   </PROPERTYBAG>
//
// A parse failure leaves the bag empty and tells why in ParseError(); the caller logs it as
// "PropertyBag Parse failed: <message>, line=<l>, col=<c>".
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace CORE {

class PropertyBag {
public:
    struct Item {
        std::wstring name;
        std::wstring type;
        std::wstring value;                  // text items
        std::unique_ptr<PropertyBag> subBag;  // sub-bag items (value empty)
    };

    PropertyBag() = default;
    virtual ~PropertyBag() = default;
    PropertyBag(const PropertyBag&) = delete;
    PropertyBag& operator=(const PropertyBag&) = delete;

    // Replaces the contents with the parsed document. caseSensitive governs the keywords
    // (PROPERTYBAG, ITEM, name, type); the tool passes true.
    virtual bool Parse(const std::wstring& text, bool caseSensitive);

    // "<message>, line=<l>, col=<c>" of the last failed Parse; empty after a successful one.
    const std::wstring& ParseError() const { return parseError_; }

    virtual bool HasItems() const;

    // Position of the next item named `name` after `position` (0 starts from the beginning;
    // positions count items from 1), with its text copied to value; 0 when there is none.
    virtual std::size_t FindNextItem(const std::wstring& name, std::wstring& value,
                                     std::size_t position) const;

    const std::vector<Item>& Items() const { return items_; }

private:
    class Parser;  // fills items_ of the bag and of its sub-bags

    std::vector<Item> items_;
    std::wstring parseError_;
};

}  // namespace CORE
