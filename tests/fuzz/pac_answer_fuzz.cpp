// A PAC script's answer (from the network) and the configured proxy list: every route usable as it
// stands, never twice, and no quiet fallback to a direct connection when a PAC script is set.
#include "fuzz_check.h"
#include "proxy_config.h"

using namespace kesclient;

// "host:port", port a plain decimal 1-65535, and normalising it again changes nothing.
static void CheckNormalForm(const std::string& proxy) {
    const std::size_t colon = proxy.rfind(':');  // npos + 1 < size fails too
    FUZZ_CHECK(NormaliseProxy(proxy) == proxy && colon > 0 && colon + 1 < proxy.size());
    const std::string port = proxy.substr(colon + 1);
    FUZZ_CHECK(port.size() <= 5 && port.front() != '0' && std::stoul(port) <= 65535);
    for (const char c : proxy) FUZZ_CHECK(c > 0x20 && c < 0x7F && c != '/' && c != '@');
}

// Checks the routes; true when one of them is direct.
static bool CheckRoutes(const std::vector<Route>& routes) {
    for (auto route = routes.begin(); route != routes.end(); ++route) {
        route->direct ? FUZZ_CHECK(route->proxy.empty()) : CheckNormalForm(route->proxy);
        FUZZ_CHECK(std::find(routes.begin(), route, *route) == route);
    }
    return std::any_of(routes.begin(), routes.end(), [](const Route& r) { return r.direct; });
}

FUZZ_TARGET {
    const std::string_view text = fuzz::Text(data, size);
    if (const auto normal = NormaliseProxy(text)) CheckNormalForm(*normal);
    // The input up to the first NUL is the PAC answer, the rest the proxy list, one per line.
    auto [answer, rest] = fuzz::SplitAt(text, '\0');
    std::vector<std::string> list;
    bool anyListed = false;
    for (std::string_view line; !rest.empty(); list.emplace_back(line)) {
        std::tie(line, rest) = fuzz::SplitAt(rest, '\n');
        anyListed |= line.find_first_not_of(" \t\r") != line.npos;
    }
    std::vector<std::string> skipped;
    const std::vector<Route> pacRoutes = ParsePacAnswer(answer, &skipped);
    const bool pacDirect = CheckRoutes(pacRoutes);
    for (const std::string& entry : skipped) FUZZ_CHECK(answer.find(entry) != answer.npos);
    // With a PAC script: its routes first and in order, then the list; direct only if it says so.
    const std::vector<Route> routes = PlanRoutes(true, pacRoutes, list, nullptr);
    FUZZ_CHECK(routes.size() >= pacRoutes.size() &&
               std::equal(pacRoutes.begin(), pacRoutes.end(), routes.begin()));
    FUZZ_CHECK(!CheckRoutes(routes) || pacDirect);
    // Without one: the list, or a direct connection when it is empty.
    FUZZ_CHECK(CheckRoutes(PlanRoutes(false, {}, list, nullptr)) == !anyListed);
}
