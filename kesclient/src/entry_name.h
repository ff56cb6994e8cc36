#pragma once
// Names of archive entries, checked before anything is written: an entry may only ever name a
// place inside the extraction folder, by a name Windows stores as written. Portable.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesclient {

inline constexpr std::size_t kMaxEntryNameBytes = 1024;
inline constexpr std::size_t kMaxComponentBytes = 255;
inline constexpr std::size_t kMaxEntryDepth = 64;

// The components of a relative entry name, "/" and "\" both separating, empty and "." components
// dropped ("./a//b/" is {"a", "b"}; "./" is {}). nullopt, with *why, for: absolute, UNC and device
// paths, drive letters (absolute or drive-relative), "..", invalid UTF-8, characters Windows
// refuses or reads specially (< > : " | ? * and controls), names ending in a dot or a blank
// (Windows drops those, so two names would meet), reserved device names, and excess length or
// depth.
std::optional<std::vector<std::string>> SplitEntryName(std::string_view name, std::string* why);

// One component, by the rules above.
bool IsAcceptableComponent(std::string_view component, std::string* why);

// CON, PRN, AUX, NUL, COM0-9, LPT0-9 (also with superscript digits), CONIN$, CONOUT$, CLOCK$, in
// any case, with or without an extension and trailing dots or blanks: Windows opens the device.
bool IsReservedDeviceName(std::string_view component);

// A case fold for spotting names that a case-insensitive file system would store as one: ASCII,
// Latin-1, Latin Extended-A, Greek and Cyrillic. The extraction also creates every file with
// "create new", which catches what this fold misses.
std::string FoldCase(std::string_view utf8);

bool IsValidUtf8(std::string_view text);

}  // namespace kesclient
