#pragma once

// Who may use the view: the origins whose pages may talk to it, the secret
// or session cookie a request must carry, failed attempts counted per
// address, and the connections each address holds. It knows nothing of
// the transport: the server hands it header values, descriptors
// and addresses.

#include <sys/socket.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

struct view_access_t {
    std::set<std::string> origins;  // "scheme://host:port", lower case
    std::string secret;             // empty: no credentials asked
    std::string session;            // the cookie's value for those who gave the secret
    size_t max_per_address = 8;
    // Failed attempts per address in the current minute.
    std::map<std::string, std::pair<int64_t, unsigned>> failures;
    // Accepted connections: descriptor -> peer.
    std::map<int, sockaddr_storage> peers;
};

constexpr const char* VIEW_COOKIE = "radarscene_view";
// Failed attempts an address may make in a minute before it is refused
// without a look at what it sends.
constexpr unsigned VIEW_FAILURES_PER_MINUTE = 10;

// The origins of the view's own page: `scheme` ("http", "https") with the
// listening address (a wildcard stands for every address of the machine),
// the name it was given, and the loopback names when it is a loopback one.
void view_access_add_own_origins(view_access_t& access, const std::string& scheme,
                                 const std::string& given, const std::string& literal, int port);
// Whether a request's Origin header value names an origin allowed in.
bool view_access_origin_allowed(const view_access_t& access, std::string_view origin);
// Whether the credentials match: a bearer token or URL parameter against
// the secret, a cookie header against the session, in constant time.
bool view_access_secret_matches(const view_access_t& access, std::string_view given);
bool view_access_cookie_matches(const view_access_t& access, std::string_view cookie_header);
// Whether `address` has used up its failed attempts; `view_access_failed`
// counts one more.
bool view_access_locked_out(view_access_t& access, const std::string& address, int64_t now_s);
void view_access_failed(view_access_t& access, const std::string& address, int64_t now_s);
// Takes a new connection on `fd`, or false when its address holds its
// share of connections already.
bool view_access_admit_peer(view_access_t& access, int fd);
// Gives up the share of a connection that is on its way out.
void view_access_release_peer(view_access_t& access, int fd);
// The numeric address of a peer, without its port.
std::string view_access_host(const sockaddr_storage& peer);
