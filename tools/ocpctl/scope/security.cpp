#include "security.hpp"

#include <cstdio>
#include <random>

namespace ocpctl::scope {

namespace {

// "127.0.0.1:8650" -> "127.0.0.1", "[::1]:80" -> "[::1]", "localhost" as is.
std::string host_without_port(const std::string& host) {
    if (!host.empty() && host[0] == '[') {
        const std::size_t end = host.find(']');
        return end == std::string::npos ? host : host.substr(0, end + 1);
    }
    const std::size_t colon = host.rfind(':');
    return colon == std::string::npos ? host : host.substr(0, colon);
}

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

AccessPolicy::AccessPolicy(std::vector<std::string> hosts, std::string token)
    : hosts_(std::move(hosts)), token_(std::move(token)) {}

bool AccessPolicy::known_host(const std::string& host_header) const {
    if (hosts_.empty()) return !host_header.empty();
    const std::string host = host_without_port(host_header);
    for (const auto& known : hosts_) {
        if (host == known) return true;
    }
    return false;
}

Verdict AccessPolicy::check(const RequestFacts& request) const {
    // Any port: through `ssh -L 9000:127.0.0.1:8650` the browser says :9000.
    if (!known_host(request.host)) return {421, "unknown host '" + request.host + "'"};
    // A browser names the page a request comes from; it must be this one.
    if (!request.origin.empty() && request.origin != "http://" + request.host)
        return {403, "cross-origin request from " + request.origin + " refused"};
    if (!request.fetch_site.empty() && request.fetch_site != "same-origin" && request.fetch_site != "none")
        return {403, "cross-site request refused"};
    if (!starts_with(request.path, "/api/")) return {};
    if (!same_token(request.token, token_)) return {403, "missing or wrong access token"};
    if (request.method == "POST" && !starts_with(request.content_type, "application/json"))
        return {415, "changing requests carry JSON (Content-Type: application/json)"};
    return {};
}

std::string make_token() {
    std::random_device source;
    std::string token;
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(source()));
        token += part;
    }
    return token;
}

bool same_token(const std::string& given, const std::string& expected) {
    unsigned difference = given.size() == expected.size() ? 0u : 1u;
    for (std::size_t i = 0; i < expected.size(); ++i)
        difference |= static_cast<unsigned>(static_cast<unsigned char>(i < given.size() ? given[i] : 0) ^
                                            static_cast<unsigned char>(expected[i]));
    return difference == 0 && !expected.empty();
}

}  // namespace ocpctl::scope
