#include "proxy_config.h"

#include "ascii_text.h"

namespace kesclient {
namespace {

bool IsHostChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_';
}

void AddUnique(std::vector<Route>& routes, Route route) {
    for (const Route& existing : routes) {
        if (existing == route) return;
    }
    routes.push_back(std::move(route));
}

void Skip(std::vector<std::string>* skipped, std::string_view entry) {
    if (skipped) skipped->emplace_back(entry);
}

}  // namespace

std::string Route::Describe() const {
    return direct ? "direct" : "proxy " + proxy + " (" + origin + ")";
}

std::optional<std::string> NormaliseProxy(std::string_view text) {
    text = Trim(text);
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd != std::string_view::npos) {
        if (!EqualsNoCase(text.substr(0, schemeEnd), "http")) return std::nullopt;
        text.remove_prefix(schemeEnd + 3);
        if (text.ends_with("/")) text.remove_suffix(1);
    }
    if (text.empty()) return std::nullopt;

    std::string_view host = text;
    std::string_view port;
    if (text.front() == '[') {
        const std::size_t closing = text.find(']');
        if (closing == std::string_view::npos || closing < 2) return std::nullopt;
        host = text.substr(0, closing + 1);
        for (const char c : host.substr(1, host.size() - 2)) {
            const bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ||
                            (c >= 'A' && c <= 'F') || c == ':' || c == '.';
            if (!ok) return std::nullopt;
        }
        const std::string_view after = text.substr(closing + 1);
        if (!after.empty()) {
            if (after.front() != ':') return std::nullopt;
            port = after.substr(1);
            if (port.empty()) return std::nullopt;
        }
    } else {
        const std::size_t colon = text.find(':');
        if (colon != std::string_view::npos) {
            host = text.substr(0, colon);
            port = text.substr(colon + 1);
            if (port.empty()) return std::nullopt;
        }
        if (host.empty()) return std::nullopt;
        for (const char c : host) {
            if (!IsHostChar(c)) return std::nullopt;
        }
    }
    std::uint64_t value = 80;
    if (!port.empty()) {
        const auto parsed = port.size() <= 5 ? ParseDecimal(port, 65535) : std::nullopt;
        if (!parsed || *parsed == 0) return std::nullopt;
        value = *parsed;
    }
    return std::string(host) + ":" + std::to_string(value);
}

std::vector<Route> ParsePacAnswer(std::string_view answer, std::vector<std::string>* skipped) {
    std::vector<Route> routes;
    while (!answer.empty()) {
        const std::size_t end = answer.find(';');
        const std::string_view entry = Trim(answer.substr(0, end));
        answer = end == std::string_view::npos ? std::string_view{} : answer.substr(end + 1);
        if (entry.empty()) continue;

        std::size_t wordEnd = 0;
        while (wordEnd < entry.size() && !IsBlank(entry[wordEnd])) ++wordEnd;
        const std::string keyword = UpperAscii(entry.substr(0, wordEnd));
        const std::string_view argument = Trim(entry.substr(wordEnd));
        if (keyword == "DIRECT" && argument.empty()) {
            AddUnique(routes, Route{true, "", "PAC"});
        } else if (keyword == "PROXY" || keyword == "HTTP") {
            const auto proxy = NormaliseProxy(argument);
            if (proxy) {
                AddUnique(routes, Route{false, *proxy, "PAC"});
            } else {
                Skip(skipped, entry);
            }
        } else if (keyword == "SOCKS" || keyword == "SOCKS4" || keyword == "SOCKS5" ||
                   keyword == "HTTPS") {
            Skip(skipped, entry);  // WinHTTP reaches proxies in plain HTTP only
        } else {
            // WinHTTP's own form: bare servers separated by blanks or semicolons.
            std::string_view list = entry;
            while (!list.empty()) {
                std::size_t item = 0;
                while (item < list.size() && !IsBlank(list[item])) ++item;
                const std::string_view server = list.substr(0, item);
                list = Trim(list.substr(item));
                // Without a keyword, only "host:port" reads as a server and not as a stray word.
                const auto proxy = server.find(':') != std::string_view::npos
                                       ? NormaliseProxy(server)
                                       : std::nullopt;
                if (proxy) {
                    AddUnique(routes, Route{false, *proxy, "PAC"});
                } else {
                    Skip(skipped, server);
                }
            }
        }
    }
    return routes;
}

std::vector<Route> PlanRoutes(bool pacConfigured, const std::vector<Route>& pacRoutes,
                              const std::vector<std::string>& proxyList,
                              std::vector<std::string>* skipped) {
    std::vector<Route> routes;
    for (const Route& route : pacRoutes) AddUnique(routes, route);
    bool anyListed = false;
    for (const std::string& entry : proxyList) {
        if (Trim(entry).empty()) continue;
        anyListed = true;
        const auto proxy = NormaliseProxy(entry);
        if (proxy) {
            AddUnique(routes, Route{false, *proxy, "list"});
        } else {
            Skip(skipped, entry);
        }
    }
    if (!pacConfigured && !anyListed) routes.push_back(Route{true, "", "direct"});
    return routes;
}

}  // namespace kesclient
