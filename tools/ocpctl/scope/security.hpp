// Who may use the scope's server. The page can move motors, so a request
// counts only when it comes from the page's own origin, names a host the
// server answers as (a page on another site that re-points its own name at
// this machine names its own host), and carries the access token printed at
// start. Reading the page itself needs no token; everything under /api does.
#pragma once

#include <string>
#include <vector>

namespace ocpctl::scope {

struct RequestFacts {
    std::string method;          // "GET", "POST", ...
    std::string path;            // "/api/start"
    std::string host;            // the Host header, "127.0.0.1:8650"
    std::string origin;          // the Origin header, empty when absent
    std::string fetch_site;      // the Sec-Fetch-Site header, empty when absent
    std::string content_type;    // of a request with a body
    std::string token;           // from the X-Scope-Token header or the token query
};

struct Verdict {
    int status = 200;       // 200: go ahead; otherwise the answer to give
    std::string reason;     // one line for the refusal
};

class AccessPolicy {
public:
    // `hosts`: the names the server answers as, without port ("127.0.0.1",
    // "localhost", or the --listen address); none: any name (a server on
    // every address of a machine is reached by names it cannot know, and
    // the token alone keeps other pages out).
    AccessPolicy(std::vector<std::string> hosts, std::string token);

    Verdict check(const RequestFacts& request) const;
    const std::string& token() const { return token_; }

private:
    bool known_host(const std::string& host_header) const;

    std::vector<std::string> hosts_;
    std::string token_;
};

// 32 hexadecimal digits from the system's random source.
std::string make_token();

// Compares without stopping at the first difference, so that the time
// taken tells nothing about how much of a guess was right.
bool same_token(const std::string& given, const std::string& expected);

}  // namespace ocpctl::scope
