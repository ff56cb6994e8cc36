// Feeds arbitrary bytes to the property bag parser: the METADATA value it reads comes from outside.
// Each input is tried as one character per byte and as UTF-16LE, each with both keyword modes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/property_bag.h"
#include "fake_platform.h"

namespace {

std::wstring Widened(const std::uint8_t* data, std::size_t size) {
    return std::wstring(data, data + size);
}

std::wstring FromUtf16Le(const std::uint8_t* data, std::size_t size) {
    std::wstring text;
    text.reserve(size / 2);
    for (std::size_t i = 0; i + 1 < size; i += 2)
        text.push_back(static_cast<wchar_t>(data[i] | (data[i + 1] << 8)));
    return text;
}

void Check(bool condition) {
    if (!condition) std::abort();
}

void ParseAndRead(const std::wstring& text, bool caseSensitive) {
    CORE::PropertyBag bag;
    const bool parsed = bag.Parse(text, caseSensitive);
    Check(parsed || !bag.HasItems());
    Check(bag.HasItems() == !bag.Items().empty());

    // Walking one name must visit exactly the items of that name, in order, and end.
    std::size_t count = 0;
    std::wstring value;
    std::size_t position = 0;
    while ((position = bag.FindNextItem(L"THUMBPRINT", value, position)) != 0) {
        Check(position <= bag.Items().size());
        Check(bag.Items()[position - 1].name == L"THUMBPRINT");
        Check(value == bag.Items()[position - 1].value);
        ++count;
    }
    std::size_t expected = 0;
    for (const auto& item : bag.Items()) {
        if (item.name == L"THUMBPRINT") ++expected;
        Check(!item.name.empty());
        Check(item.subBag == nullptr || item.value.empty());
    }
    Check(count == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Failures are logged to the fake console when no run log exists; start clean every time so
    // it does not grow across millions of inputs.
    fake::Reset();
    for (const std::wstring& text : {Widened(data, size), FromUtf16Le(data, size)}) {
        ParseAndRead(text, true);
        ParseAndRead(text, false);
    }
    return 0;
}
