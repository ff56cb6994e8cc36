// Entry-name validation alone, at full speed: whatever it accepts must name a place inside the
// extraction folder by a name Windows stores as written, and the case fold must be stable.
#include "entry_name.h"
#include "fuzz_check.h"

using namespace kesclient;

static bool HasDrive(std::string_view name) {
    const char c = name.size() > 1 && name[1] == ':' ? name[0] : 0;
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view name = fuzz::Text(data, size);
    std::string why;
    const auto components = SplitEntryName(name, &why);
    FUZZ_CHECK(components || !why.empty());
    if (components) {
        // Nothing absolute, on a drive (absolute or drive-relative), UNC or device; no component
        // that climbs, separates, names a device or that Windows would store otherwise.
        FUZZ_CHECK(!name.empty() && name.front() != '/' && name.front() != '\\' && !HasDrive(name));
        FUZZ_CHECK(components->size() <= kMaxEntryDepth);
        for (const std::string& part : *components) {
            FUZZ_CHECK(part != ".." && part != "." && !part.empty() &&
                       part.size() <= kMaxComponentBytes);
            FUZZ_CHECK(part.find_first_of("/\\:\0", 0, 4) == std::string::npos);
            FUZZ_CHECK(part.back() != '.' && part.back() != ' ');
            FUZZ_CHECK(!IsReservedDeviceName(part) && IsValidUtf8(part));
        }
        // The components are the name: joining them and splitting again changes nothing.
        if (!components->empty())
            FUZZ_CHECK(SplitEntryName(fuzz::Joined(*components, "/"), nullptr) == components);
    }
    // The fold maps valid UTF-8 to valid UTF-8 and is idempotent, or two spellings of one name
    // could escape the collision check through a second folding.
    if (IsValidUtf8(name))
        FUZZ_CHECK(IsValidUtf8(FoldCase(name)) && FoldCase(FoldCase(name)) == FoldCase(name));
    // A component is judged the same on its own as inside a path.
    if (name.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos && name != "." &&
        !name.empty() && !HasDrive(name))
        FUZZ_CHECK(IsAcceptableComponent(name, nullptr) == components.has_value());
    return 0;
}
