#pragma once
// The process-wide trust choice the tool makes with ordinals 5 and 8 before creating downloads.
// The last call wins; thumbprints given to a download select pinning for that download instead.
#include <string>

namespace kesclient {

enum class TrustChoice { kNone, kPemBundle, kSystemStore };

struct TrustSelection {
    TrustChoice choice = TrustChoice::kNone;
    std::string pemPath;  // UTF-8
};

void SelectPemBundle(std::string path);
// enable false withdraws an earlier system-store choice and leaves a PEM choice as it is.
void SelectSystemStore(bool enable);
TrustSelection CurrentTrustSelection();

}  // namespace kesclient
