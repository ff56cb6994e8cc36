// The update key's METADATA value, which comes from outside, through the property bag parser: as
// one character per byte and as UTF-16LE, each with both keyword modes.
#include "core/property_bag.h"
#include "fake_platform.h"
#include "fuzz_check.h"

FUZZ_TARGET {
    fake::Reset();  // a failed parse logs to the fake console, which would grow across inputs
    for (const std::wstring& text : {fuzz::Widened(data, size), fuzz::Utf16Le(data, size)}) {
        for (const bool caseSensitive : {true, false}) {
            // A failed parse leaves no items; walking one name visits exactly its items, in order.
            CORE::PropertyBag bag;
            FUZZ_CHECK(bag.Parse(text, caseSensitive) || bag.Items().empty());
            const auto& items = bag.Items();
            std::size_t at = 0;
            std::wstring value;
            for (const auto& item : items) {
                FUZZ_CHECK(!item.name.empty());
                if (item.name != L"THUMBPRINT") continue;
                const std::size_t next = bag.FindNextItem(L"THUMBPRINT", value, at);
                FUZZ_CHECK(next == std::size_t(&item - items.data()) + 1 && value == item.value);
                at = next;
            }
            FUZZ_CHECK(bag.FindNextItem(L"THUMBPRINT", value, at) == 0);
        }
    }
}
