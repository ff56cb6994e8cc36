// Entry-name validation alone, at full speed: whatever it accepts must name a place inside the
// extraction folder by a name Windows stores as written, and the case fold must be stable.
#include <cctype>

#include "entry_name.h"
#include "fuzz_check.h"

using namespace kesclient;

FUZZ_TARGET {
    const std::string_view name = fuzz::Text(data, size);
    std::string why;
    const auto components = SplitEntryName(name, &why);
    const bool drive = size > 1 && name[1] == ':' && std::isalpha(data[0]);
    // The fold maps valid UTF-8 to valid UTF-8 and is idempotent, or two spellings of one name
    // could escape the collision check through a second folding.
    if (IsValidUtf8(name))
        FUZZ_CHECK(IsValidUtf8(FoldCase(name)) && FoldCase(FoldCase(name)) == FoldCase(name));
    // A component is judged the same on its own as inside a path.
    if (name.find_first_of("/\\\0", 0, 3) == name.npos && name != "." && !name.empty() && !drive)
        FUZZ_CHECK(IsAcceptableComponent(name, nullptr) == components.has_value());
    FUZZ_CHECK(components || !why.empty());
    if (!components) return;
    // Nothing absolute, on a drive (absolute or drive-relative), UNC or device; no component that
    // climbs, separates, names a device or that Windows would store otherwise.
    FUZZ_CHECK(!name.empty() && name.front() != '/' && name.front() != '\\' && !drive);
    FUZZ_CHECK(components->size() <= kMaxEntryDepth);
    for (const std::string& part : *components)
        FUZZ_CHECK(part != ".." && part != "." && !part.empty() &&
                   part.size() <= kMaxComponentBytes &&
                   part.find_first_of("/\\:\0", 0, 4) == part.npos && part.back() != '.' &&
                   part.back() != ' ' && !IsReservedDeviceName(part) && IsValidUtf8(part));
    // The components are the name: joining them and splitting again changes nothing.
    if (!components->empty())
        FUZZ_CHECK(SplitEntryName(fuzz::Joined(*components), nullptr) == components);
}
