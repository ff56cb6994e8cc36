#pragma once
// Extraction of a verified tar or tar.gz package into the download folder, all or nothing: entries
// are written to a staging folder beside their destination (same volume, so moves are renames),
// then moved into place; files they replace are set aside first and put back if any step fails.
#include <cstdint>
#include <string>
#include <vector>

namespace kesclient {

// reservedNames: names in folder the archive may not use at its top level (the download's own
// working files). buffer: the run's transfer buffer, reused for reading the archive.
bool ExtractArchive(const std::wstring& archive, const std::wstring& folder,
                    const std::vector<std::wstring>& reservedNames,
                    std::vector<std::uint8_t>& buffer, const std::string& id, std::string* why);

}  // namespace kesclient
