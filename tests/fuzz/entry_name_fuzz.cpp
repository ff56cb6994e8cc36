// Entry-name validation alone, at full speed: whatever it accepts must name a place inside the
// extraction folder by a name Windows stores as written, and the case fold used to spot
// collisions must be stable.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "entry_name.h"
#include "fuzz_check.h"

namespace {

using namespace kesclient;

bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view name(reinterpret_cast<const char*>(data), size);
    std::string why;
    const auto components = SplitEntryName(name, &why);
    if (!components) {
        FUZZ_CHECK(!why.empty());
    } else {
        // Nothing absolute, on a drive (absolute or drive-relative), UNC or device.
        FUZZ_CHECK(!name.empty() && name.front() != '/' && name.front() != '\\');
        FUZZ_CHECK(!(name.size() > 1 && IsAsciiLetter(name[0]) && name[1] == ':'));
        FUZZ_CHECK(components->size() <= kMaxEntryDepth);
        std::string joined;
        for (const std::string& component : *components) {
            FUZZ_CHECK(component != ".." && component != "." && !component.empty());
            FUZZ_CHECK(component.find_first_of("/\\:\0", 0, 4) == std::string::npos);
            FUZZ_CHECK(component.size() <= kMaxComponentBytes);
            FUZZ_CHECK(component.back() != '.' && component.back() != ' ');
            FUZZ_CHECK(!IsReservedDeviceName(component));
            FUZZ_CHECK(IsValidUtf8(component));
            FUZZ_CHECK(IsAcceptableComponent(component, nullptr));
            joined += (joined.empty() ? "" : "/") + component;
        }
        // The components are the name: joining them and splitting again changes nothing.
        if (!components->empty()) {
            const auto again = SplitEntryName(joined, nullptr);
            FUZZ_CHECK(again && *again == *components);
        }
    }

    // The fold maps valid UTF-8 to valid UTF-8 and is idempotent, or two spellings of one name
    // could escape the collision check through a second folding.
    if (IsValidUtf8(name)) {
        const std::string folded = FoldCase(name);
        FUZZ_CHECK(IsValidUtf8(folded));
        FUZZ_CHECK(FoldCase(folded) == folded);
    }
    // A component is judged the same on its own as inside a path.
    if (name.find_first_of("/\\") == std::string_view::npos && name != "." && !name.empty() &&
        !(name.size() > 1 && IsAsciiLetter(name[0]) && name[1] == ':') &&
        name.find('\0') == std::string_view::npos) {
        FUZZ_CHECK(IsAcceptableComponent(name, nullptr) == components.has_value());
    }
    return 0;
}
