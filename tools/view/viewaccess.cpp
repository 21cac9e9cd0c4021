// Who may use the view: origins, credentials, failures and connections per
// address.
#include "viewaccess.h"

#include "httpmessage.h"

#include <ifaddrs.h>
#include <netdb.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t MAX_FAILING_ADDRESSES = 1024;

std::string host_part(const std::string& host) {
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Equal in a time that depends only on the length of `expected`.
bool same(std::string_view given, std::string_view expected) {
    unsigned char diff = given.size() != expected.size();
    for (size_t i = 0; i < expected.size(); ++i) {
        diff |= static_cast<unsigned char>(expected[i] ^ (i < given.size() ? given[i] : 0));
    }
    return diff == 0;
}

bool same_peer(const sockaddr_storage& a, const sockaddr_storage& b) {
    if (a.ss_family != b.ss_family) {
        return false;
    }
    size_t n = a.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    return memcmp(&a, &b, n) == 0;
}

}  // namespace

void view_access_add_own_origins(view_access_t& access, const std::string& scheme,
                                 const std::string& given, const std::string& literal, int port) {
    std::set<std::string> hosts{given, literal};
    if (literal == "0.0.0.0" || literal == "::") {
        ifaddrs* list = nullptr;
        if (getifaddrs(&list) == 0) {
            for (ifaddrs* i = list; i; i = i->ifa_next) {
                char host[NI_MAXHOST];
                if (i->ifa_addr &&
                    (i->ifa_addr->sa_family == AF_INET || i->ifa_addr->sa_family == AF_INET6) &&
                    getnameinfo(i->ifa_addr,
                                i->ifa_addr->sa_family == AF_INET ? sizeof(sockaddr_in)
                                                                  : sizeof(sockaddr_in6),
                                host, sizeof host, nullptr, 0, NI_NUMERICHOST) == 0 &&
                    !strchr(host, '%')) {
                    hosts.insert(host);
                }
            }
            freeifaddrs(list);
        }
        char name[256] = "";
        gethostname(name, sizeof name - 1);
        hosts.insert(name);
    }
    if (literal.rfind("127.", 0) == 0 || literal == "::1" || literal == "0.0.0.0" ||
        literal == "::") {
        hosts.insert({"localhost", "127.0.0.1", "::1"});
    }
    for (const std::string& host : hosts) {
        if (!host.empty()) {
            access.origins.insert(
                http_lower(scheme + "://" + host_part(host) + ":" + std::to_string(port)));
        }
    }
}

bool view_access_origin_allowed(const view_access_t& access, std::string_view origin) {
    return access.origins.count(http_lower(origin)) > 0;
}

bool view_access_secret_matches(const view_access_t& access, std::string_view given) {
    return !access.secret.empty() && same(given, access.secret);
}

bool view_access_cookie_matches(const view_access_t& access, std::string_view header) {
    std::string name = std::string(VIEW_COOKIE) + "=";
    bool found = false;
    for (size_t at = 0; at < header.size();) {
        size_t end = std::min(header.find(';', at), header.size());
        std::string_view cookie = header.substr(at, end - at);
        while (!cookie.empty() && cookie.front() == ' ') {
            cookie.remove_prefix(1);
        }
        if (cookie.substr(0, name.size()) == name) {
            found = same(cookie.substr(name.size()), access.session) || found;
        }
        at = end + 1;
    }
    return found;
}

bool view_access_locked_out(view_access_t& access, const std::string& address, int64_t now_s) {
    auto it = access.failures.find(address);
    if (it == access.failures.end()) {
        return false;
    }
    if (now_s - it->second.first >= 60) {
        access.failures.erase(it);
        return false;
    }
    return it->second.second >= VIEW_FAILURES_PER_MINUTE;
}

void view_access_failed(view_access_t& access, const std::string& address, int64_t now_s) {
    if (access.failures.size() >= MAX_FAILING_ADDRESSES && !access.failures.count(address)) {
        // The table stays bounded: the oldest minute goes first.
        auto oldest = std::min_element(
            access.failures.begin(), access.failures.end(),
            [](const auto& a, const auto& b) { return a.second.first < b.second.first; });
        access.failures.erase(oldest);
    }
    auto& [since, count] = access.failures[address];
    if (count == 0 || now_s - since >= 60) {
        since = now_s;
        count = 0;
    }
    ++count;
}

std::string view_access_host(const sockaddr_storage& peer) {
    char host[NI_MAXHOST] = "";
    getnameinfo(reinterpret_cast<const sockaddr*>(&peer),
                peer.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6), host,
                sizeof host, nullptr, 0, NI_NUMERICHOST);
    return host;
}

bool view_access_admit_peer(view_access_t& access, int fd) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        return false;
    }
    // The table learns of no close: an entry whose descriptor no longer
    // leads to the same peer is gone. A descriptor reused for another
    // accepted connection comes through here first and replaces its entry.
    std::string host = view_access_host(peer);
    size_t held = 0;
    access.peers.erase(fd);
    for (auto it = access.peers.begin(); it != access.peers.end();) {
        sockaddr_storage now{};
        socklen_t n = sizeof now;
        if (getpeername(it->first, reinterpret_cast<sockaddr*>(&now), &n) != 0 ||
            !same_peer(now, it->second)) {
            it = access.peers.erase(it);
            continue;
        }
        held += view_access_host(it->second) == host;
        ++it;
    }
    if (held >= access.max_per_address) {
        return false;
    }
    access.peers[fd] = peer;
    return true;
}

void view_access_release_peer(view_access_t& access, int fd) {
    access.peers.erase(fd);
}
