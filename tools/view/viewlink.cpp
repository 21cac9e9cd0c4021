// One connection's bytes, plain or over TLS.
#include "viewlink.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace {

std::string openssl_error() {
    unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) {
        return "unknown error";
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

// What a TLS call's result means for us: bytes, 0 to wait, -1 the end.
ssize_t outcome(view_link_t& link, int result) {
    if (result > 0) {
        return result;
    }
    int error = SSL_get_error(link.ssl, result);
    link.wants_write = error == SSL_ERROR_WANT_WRITE;
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        return 0;
    }
    ERR_clear_error();
    return -1;
}

}  // namespace

view_tls_t::~view_tls_t() {
    SSL_CTX_free(context);
}

std::unique_ptr<view_tls_t> view_tls_create(const std::string& cert, const std::string& key) {
    auto tls = std::make_unique<view_tls_t>();
    tls->context = SSL_CTX_new(TLS_server_method());
    if (!tls->context) {
        throw std::runtime_error("cannot set up TLS: " + openssl_error());
    }
    SSL_CTX_set_min_proto_version(tls->context, TLS1_2_VERSION);
    // A client may not make the server work through a new handshake on an
    // established connection.
    SSL_CTX_set_options(tls->context, SSL_OP_NO_RENEGOTIATION);
    // Writes go out in parts, and idle connections keep no buffers.
    SSL_CTX_set_mode(tls->context, SSL_MODE_ENABLE_PARTIAL_WRITE |
                                       SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                       SSL_MODE_RELEASE_BUFFERS);
    if (SSL_CTX_use_certificate_chain_file(tls->context, cert.c_str()) != 1) {
        throw std::runtime_error("cannot use the certificate " + cert + ": " + openssl_error());
    }
    if (SSL_CTX_use_PrivateKey_file(tls->context, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(tls->context) != 1) {
        throw std::runtime_error("cannot use the key " + key + ": " + openssl_error());
    }
    return tls;
}

view_link_t::~view_link_t() {
    SSL_free(ssl);
    if (fd >= 0) {
        close(fd);
    }
}

std::unique_ptr<view_link_t> view_link_create(int fd, view_tls_t* tls) {
    auto link = std::make_unique<view_link_t>();
    link->fd = fd;
    link->established = !tls;
    if (tls) {
        link->ssl = SSL_new(tls->context);
        if (!link->ssl || SSL_set_fd(link->ssl, fd) != 1) {
            ERR_clear_error();
            return nullptr;
        }
        SSL_set_accept_state(link->ssl);
    }
    return link;
}

int view_link_handshake(view_link_t& link) {
    if (link.established) {
        return 1;
    }
    int result = SSL_do_handshake(link.ssl);
    if (result == 1) {
        link.established = true;
        link.wants_write = false;
        return 1;
    }
    int kind = SSL_get_error(link.ssl, result);
    link.wants_write = kind == SSL_ERROR_WANT_WRITE;
    if (kind == SSL_ERROR_WANT_READ || kind == SSL_ERROR_WANT_WRITE) {
        return 0;
    }
    ERR_clear_error();
    return -1;
}

ssize_t view_link_read(view_link_t& link, char* to, size_t n) {
    if (link.ssl) {
        return outcome(link, SSL_read(link.ssl, to, static_cast<int>(n)));
    }
    ssize_t got = recv(link.fd, to, n, 0);
    return got > 0 ? got : got < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
}

ssize_t view_link_write(view_link_t& link, const char* from, size_t n) {
    if (link.ssl) {
        return outcome(link, SSL_write(link.ssl, from, static_cast<int>(n)));
    }
    ssize_t sent = send(link.fd, from, n, MSG_NOSIGNAL);
    return sent >= 0 ? sent : errno == EAGAIN || errno == EINTR ? 0 : -1;
}

bool view_link_pending(const view_link_t& link) {
    return link.ssl && SSL_pending(link.ssl) > 0;
}

void view_link_shutdown(view_link_t& link) {
    if (link.ssl && link.established) {
        SSL_shutdown(link.ssl);
        ERR_clear_error();
    }
    shutdown(link.fd, SHUT_WR);
}
