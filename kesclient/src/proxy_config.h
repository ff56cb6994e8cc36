#pragma once
// Which ways to the server a download tries, in order: the PAC script's answer, then the listed
// proxies, and a direct connection only when neither is configured. Portable: unit-tested natively.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesclient {

struct Route {
    bool direct = true;
    std::string proxy;   // "host:port" when not direct
    std::string origin;  // "PAC", "list" or "direct", for the log

    std::string Describe() const;
    friend bool operator==(const Route& a, const Route& b) {
        return a.direct == b.direct && a.proxy == b.proxy;
    }
};

// "host:port", "host" (port 80), "[v6]:port" or "http://host:port/" as "host:port". Refuses other
// schemes (WinHTTP speaks to proxies in plain HTTP only), credentials, paths and blanks.
std::optional<std::string> NormaliseProxy(std::string_view text);

// A PAC answer: either FindProxyForURL's own text ("PROXY a:8080; DIRECT") or WinHTTP's list form
// ("a:8080;b:3128"). Entries it cannot use (SOCKS, HTTPS proxies, garbage) land in *skipped.
std::vector<Route> ParsePacAnswer(std::string_view answer, std::vector<std::string>* skipped);

// The routes in the order they are tried, duplicates dropped. Invalid list entries land in
// *skipped. With a PAC URL configured, an empty answer and no list give no route at all: falling
// back to a direct connection would bypass the network's policy.
std::vector<Route> PlanRoutes(bool pacConfigured, const std::vector<Route>& pacRoutes,
                              const std::vector<std::string>& proxyList,
                              std::vector<std::string>* skipped);

}  // namespace kesclient
