// The update key's METADATA value, which comes from outside, through the property bag parser: as
// one character per byte and as UTF-16LE, each with both keyword modes.
#include "core/property_bag.h"
#include "fake_platform.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fake::Reset();  // a failed parse logs to the fake console, which would grow across inputs
    for (const std::wstring& text : {fuzz::Widened(data, size), fuzz::Utf16Le(data, size)}) {
        for (const bool caseSensitive : {true, false}) {
            CORE::PropertyBag bag;
            // A failed parse leaves no items; walking one name visits exactly its items, in order.
            const bool parsed = bag.Parse(text, caseSensitive);
            const auto& items = bag.Items();
            FUZZ_CHECK(parsed || items.empty());
            for (const auto& item : items) FUZZ_CHECK(!item.name.empty());
            std::size_t visited = 0;
            std::wstring value;
            for (std::size_t at = 0, next; (next = bag.FindNextItem(L"THUMBPRINT", value, at));
                 at = next) {
                FUZZ_CHECK(next > at && next <= items.size());
                FUZZ_CHECK(items[next - 1].name == L"THUMBPRINT" && items[next - 1].value == value);
                ++visited;
            }
            const auto isThumbprint = [](const auto& item) { return item.name == L"THUMBPRINT"; };
            FUZZ_CHECK(visited ==
                       std::size_t(std::count_if(items.begin(), items.end(), isThumbprint)));
        }
    }
    return 0;
}
