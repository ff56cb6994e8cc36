// A PAC script's answer (from the network) and the configured proxy list: every route usable as it
// stands, never twice, and no quiet fallback to a direct connection when a PAC script is set.
#include "fuzz_check.h"
#include "proxy_config.h"

using namespace kesclient;

// "host:port", port a plain decimal 1-65535, and normalising it again changes nothing.
static void CheckNormalForm(const std::string& proxy) {
    FUZZ_CHECK(NormaliseProxy(proxy) == proxy);
    const std::size_t colon = proxy.rfind(':');
    FUZZ_CHECK(colon != std::string::npos && colon > 0 && colon + 1 < proxy.size());
    const std::string port = proxy.substr(colon + 1);
    FUZZ_CHECK(port.size() <= 5 && port.front() != '0' && std::stoul(port) <= 65535);
    for (const char c : proxy) FUZZ_CHECK(c > 0x20 && c < 0x7F && c != '/' && c != '@');
}

static void CheckRoutes(const std::vector<Route>& routes) {
    for (auto route = routes.begin(); route != routes.end(); ++route) {
        if (route->direct) FUZZ_CHECK(route->proxy.empty());
        if (!route->direct) CheckNormalForm(route->proxy);
        FUZZ_CHECK(std::find(routes.begin(), route, *route) == route);
    }
}

static bool IsDirect(const Route& route) {
    return route.direct;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Text(data, size);
    if (const auto normal = NormaliseProxy(text)) CheckNormalForm(*normal);

    // The input up to the first NUL is the PAC answer, the rest the proxy list, one per line.
    auto [answer, rest] = fuzz::SplitAt(text, '\0');
    std::vector<std::string> list;
    while (!rest.empty()) {
        const auto [line, next] = fuzz::SplitAt(rest, '\n');
        list.emplace_back(line);
        rest = next;
    }
    const bool anyListed = std::any_of(list.begin(), list.end(), [](const std::string& entry) {
        return entry.find_first_not_of(" \t\r") != std::string::npos;
    });

    std::vector<std::string> skipped;
    const std::vector<Route> pacRoutes = ParsePacAnswer(answer, &skipped);
    CheckRoutes(pacRoutes);
    for (const std::string& entry : skipped)
        FUZZ_CHECK(answer.find(entry) != std::string_view::npos);
    // With a PAC script: its routes first and in its order, then the list; direct only when the
    // script itself says so, never as a quiet fallback.
    const std::vector<Route> routes = PlanRoutes(true, pacRoutes, list, nullptr);
    CheckRoutes(routes);
    FUZZ_CHECK(routes.size() >= pacRoutes.size() &&
               std::equal(pacRoutes.begin(), pacRoutes.end(), routes.begin()));
    if (std::any_of(routes.begin(), routes.end(), IsDirect))
        FUZZ_CHECK(std::any_of(pacRoutes.begin(), pacRoutes.end(), IsDirect));
    // Without one (and so without its routes): the list, or a direct connection when it is empty.
    const std::vector<Route> listed = PlanRoutes(false, {}, list, nullptr);
    CheckRoutes(listed);
    FUZZ_CHECK(std::any_of(listed.begin(), listed.end(), IsDirect) == !anyListed);
    return 0;
}
