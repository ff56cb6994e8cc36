#include "client_state.h"

#include <mutex>

namespace kesclient {
namespace {

std::mutex g_mutex;
TrustSelection g_selection;

}  // namespace

void SelectPemBundle(std::string path) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_selection.choice = TrustChoice::kPemBundle;
    g_selection.pemPath = std::move(path);
}

void SelectSystemStore(bool enable) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (enable) {
        g_selection.choice = TrustChoice::kSystemStore;
    } else if (g_selection.choice == TrustChoice::kSystemStore) {
        g_selection.choice = TrustChoice::kNone;
    }
}

TrustSelection CurrentTrustSelection() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_selection;
}

}  // namespace kesclient
