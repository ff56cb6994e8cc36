#include "digest_win.h"

#include <algorithm>
#include <vector>

namespace kesclient {
namespace {

LPCWSTR AlgorithmId(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::kSha1:
            return BCRYPT_SHA1_ALGORITHM;
        case DigestAlgorithm::kSha256:
            return BCRYPT_SHA256_ALGORITHM;
        case DigestAlgorithm::kSha512:
            return BCRYPT_SHA512_ALGORITHM;
        case DigestAlgorithm::kNone:
            break;
    }
    return nullptr;
}

bool Succeeded(NTSTATUS status) {
    return status >= 0;
}

}  // namespace

bool Hasher::Start(DigestAlgorithm algorithm) {
    hash_.reset();
    const LPCWSTR id = AlgorithmId(algorithm);
    if (id == nullptr) return false;
    if (!provider_ || algorithm_ != algorithm) {
        provider_.reset();
        if (!Succeeded(::BCryptOpenAlgorithmProvider(provider_.put(), id, nullptr, 0)))
            return false;
        algorithm_ = algorithm;
    }
    return Succeeded(::BCryptCreateHash(provider_.get(), hash_.put(), nullptr, 0, nullptr, 0, 0));
}

bool Hasher::Update(const std::uint8_t* data, std::size_t size) {
    if (!hash_) return false;
    while (size > 0) {
        const auto chunk = static_cast<ULONG>(std::min<std::size_t>(size, 1u << 30));
        if (!Succeeded(::BCryptHashData(hash_.get(), const_cast<PUCHAR>(data), chunk, 0)))
            return false;
        data += chunk;
        size -= chunk;
    }
    return true;
}

std::string Hasher::FinishHex() {
    if (!hash_) return {};
    std::vector<std::uint8_t> digest(DigestHexLength(algorithm_) / 2);
    const bool ok = Succeeded(
        ::BCryptFinishHash(hash_.get(), digest.data(), static_cast<ULONG>(digest.size()), 0));
    hash_.reset();
    return ok ? HexEncode(digest.data(), digest.size()) : std::string();
}

std::string DigestHex(DigestAlgorithm algorithm, const std::uint8_t* data, std::size_t size) {
    Hasher hasher;
    if (!hasher.Start(algorithm) || !hasher.Update(data, size)) return {};
    return hasher.FinishHex();
}

}  // namespace kesclient
