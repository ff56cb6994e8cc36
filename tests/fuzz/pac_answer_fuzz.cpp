// Proxy texts: the PAC script's answer (it comes from a script on the network) and the configured
// proxy list. Every route must be usable as it stands: a proxy in its one normal form, never twice,
// and no quiet fallback to a direct connection when a PAC script is configured.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "proxy_config.h"

namespace {

using namespace kesclient;

void CheckNormalForm(const std::string& proxy) {
    // "host:port", port a plain decimal 1-65535, and normalising it again changes nothing.
    FUZZ_CHECK(NormaliseProxy(proxy) == proxy);
    const std::size_t colon = proxy.rfind(':');
    FUZZ_CHECK(colon != std::string::npos && colon > 0 && colon + 1 < proxy.size());
    const std::string port = proxy.substr(colon + 1);
    FUZZ_CHECK(port.size() <= 5 && port.front() != '0');
    FUZZ_CHECK(std::stoul(port) >= 1 && std::stoul(port) <= 65535);
    for (const char c : proxy) FUZZ_CHECK(c > 0x20 && c < 0x7F && c != '/' && c != '@');
}

void CheckRoutes(const std::vector<Route>& routes) {
    for (std::size_t i = 0; i < routes.size(); ++i) {
        if (routes[i].direct) {
            FUZZ_CHECK(routes[i].proxy.empty());
        } else {
            CheckNormalForm(routes[i].proxy);
        }
        for (std::size_t j = 0; j < i; ++j) FUZZ_CHECK(!(routes[i] == routes[j]));
    }
}

std::vector<std::string> SplitList(std::string_view text) {
    std::vector<std::string> list;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        list.emplace_back(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    }
    return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const auto normal = NormaliseProxy(text);
    if (normal) CheckNormalForm(*normal);

    // The input up to the first NUL is the PAC answer, the rest the proxy list, one per line.
    const std::size_t split = text.find('\0');
    const std::string_view answer = text.substr(0, split);
    const std::vector<std::string> list =
        split == std::string_view::npos ? std::vector<std::string>{} : SplitList(text.substr(split + 1));

    std::vector<std::string> skipped;
    const std::vector<Route> pacRoutes = ParsePacAnswer(answer, &skipped);
    CheckRoutes(pacRoutes);
    for (const std::string& entry : skipped) FUZZ_CHECK(answer.find(entry) != std::string_view::npos);

    bool anyListed = false;
    for (const std::string& entry : list) {
        if (entry.find_first_not_of(" \t\r") != std::string::npos) anyListed = true;
    }
    // With a PAC script: its routes first and in its order, then the list; direct only when the
    // script itself says so, never as a quiet fallback.
    const std::vector<Route> routes = PlanRoutes(true, pacRoutes, list, nullptr);
    CheckRoutes(routes);
    FUZZ_CHECK(routes.size() >= pacRoutes.size());
    for (std::size_t i = 0; i < pacRoutes.size(); ++i) FUZZ_CHECK(routes[i] == pacRoutes[i]);
    const auto isDirect = [](const Route& route) { return route.direct; };
    if (std::any_of(routes.begin(), routes.end(), isDirect))
        FUZZ_CHECK(std::any_of(pacRoutes.begin(), pacRoutes.end(), isDirect));

    // Without one (and so without its routes): the list, or a direct connection when it is empty.
    const std::vector<Route> listed = PlanRoutes(false, {}, list, nullptr);
    CheckRoutes(listed);
    FUZZ_CHECK(std::any_of(listed.begin(), listed.end(), isDirect) == !anyListed);
    return 0;
}
