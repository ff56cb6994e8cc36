#pragma once
// SHA-1, SHA-256 and SHA-512 through CNG: streaming for downloads, one-shot for certificates.
#include <cstddef>
#include <cstdint>
#include <string>

#include "digest_text.h"
#include "handles_win.h"

namespace kesclient {

class Hasher {
public:
    bool Start(DigestAlgorithm algorithm);  // also restarts a running hash
    bool Update(const std::uint8_t* data, std::size_t size);
    std::string FinishHex();  // lower-case hex; "" on failure
    bool active() const { return hash_.valid(); }

private:
    UniqueAlgorithm provider_;
    UniqueHash hash_;
    DigestAlgorithm algorithm_ = DigestAlgorithm::kNone;
};

std::string DigestHex(DigestAlgorithm algorithm, const std::uint8_t* data, std::size_t size);

}  // namespace kesclient
