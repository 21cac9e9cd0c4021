#pragma once

// One connection's bytes, plain or over TLS: a non-blocking socket and,
// with TLS, its OpenSSL session. Reads and writes never block; a TLS
// operation that waits for the socket to be writable says so, for the
// server to wait on it.

#include <sys/types.h>

#include <memory>
#include <string>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

// The server's TLS settings: its certificate chain and key, TLS 1.2 at least.
struct view_tls_t {
    SSL_CTX* context = nullptr;
    ~view_tls_t();
};

// Loads the certificate chain and key; throws one line naming the file at
// fault.
std::unique_ptr<view_tls_t> view_tls_create(const std::string& cert, const std::string& key);

struct view_link_t {
    int fd = -1;
    SSL* ssl = nullptr;
    bool established = false;  // the TLS handshake is over, or there is none
    bool wants_write = false;  // the last TLS operation waits for a writable socket
    ~view_link_t();
};

// Takes an accepted, non-blocking socket; with `tls`, the handshake is yet
// to be made.
std::unique_ptr<view_link_t> view_link_create(int fd, view_tls_t* tls);
// Advances the TLS handshake: 1 when done, 0 while it waits for the
// socket, -1 when it failed (why is not kept: the peer chooses it).
int view_link_handshake(view_link_t& link);
// Bytes read or written; 0 when the socket would block; -1 at the end or
// on an error.
ssize_t view_link_read(view_link_t& link, char* to, size_t n);
ssize_t view_link_write(view_link_t& link, const char* from, size_t n);
// Whether TLS holds bytes read from the socket but not yet taken.
bool view_link_pending(const view_link_t& link);
// Ends what we send (TLS's close_notify, then the socket's write side); the
// peer's bytes can still be read and dropped.
void view_link_shutdown(view_link_t& link);
