#pragma once
// What is kept beside a partial download so that a later run can resume it. The file lives in a
// folder other programs can write to, so reading it is parsing untrusted input. Portable.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kesclient {

// Text form, one "key value" per line after a header line:
//   kesclient-resume 1
//   url https://host/path/file.exe
//   validator "etag-or-last-modified"
//   checksum sha256:abcd...   (or "none")
//   offset 1048576            (bytes of the partial file known to be written)
//   total 73400320            (0 when the server did not say)
struct ResumeState {
    std::string url;
    std::string validator;
    std::string checksum;
    std::uint64_t offset = 0;
    std::uint64_t total = 0;

    friend bool operator==(const ResumeState&, const ResumeState&) = default;
};

inline constexpr std::size_t kMaxResumeStateBytes = 16 * 1024;

std::string SerialiseResumeState(const ResumeState& state);

// nullopt for anything but exactly the form above: unknown or repeated keys, missing keys,
// control characters, numbers that are not plain decimal, an offset beyond a known total.
std::optional<ResumeState> ParseResumeState(std::string_view text);

}  // namespace kesclient
