// TLS context of the MQTT backend.

#include "mqtt_tls.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace tessel_os_varro {
namespace {

// Handshakes run on the connection's own thread, which reads this after a
// failed one: libmosquitto has freed the TLS session by then.
thread_local int refusal = X509_V_OK;

int remember_refusal(int ok, X509_STORE_CTX* store) {
    if (!ok && refusal == X509_V_OK) {
        refusal = X509_STORE_CTX_get_error(store);
    }
    return ok;
}

std::string openssl_error() {
    char text[256] = "unknown error";
    if (unsigned long error = ERR_get_error()) {
        ERR_error_string_n(error, text, sizeof(text));
    }
    ERR_clear_error();
    return text;
}

}  // namespace

std::expected<mqtt_tls_t, std::string> mqtt_tls_create(const mqtt_settings_t& s) {
    mqtt_tls_t ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx) {
        return std::unexpected("cannot create a TLS context: " + openssl_error());
    }
    SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
    // An encrypted key fails here instead of asking on a terminal.
    SSL_CTX_set_default_passwd_cb(ctx.get(), [](char*, int, int, void*) { return 0; });
    if (s.cafile.empty() ? !SSL_CTX_set_default_verify_paths(ctx.get())
                         : !SSL_CTX_load_verify_locations(ctx.get(), s.cafile.c_str(), nullptr)) {
        return std::unexpected("cannot use VARRO_MQTT_CAFILE " + s.cafile + ": " + openssl_error());
    }
    if (!s.keyfile.empty() && s.certfile.empty()) {
        return std::unexpected("VARRO_MQTT_KEYFILE needs VARRO_MQTT_CERTFILE");
    }
    if (!s.certfile.empty()) {
        const std::string& key = s.keyfile.empty() ? s.certfile : s.keyfile;
        if (SSL_CTX_use_certificate_chain_file(ctx.get(), s.certfile.c_str()) != 1) {
            return std::unexpected("cannot use VARRO_MQTT_CERTFILE " + s.certfile + ": " +
                                   openssl_error());
        }
        if (SSL_CTX_use_PrivateKey_file(ctx.get(), key.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_check_private_key(ctx.get()) != 1) {
            return std::unexpected(
                std::string("cannot use ") +
                (s.keyfile.empty() ? "the key in VARRO_MQTT_CERTFILE " : "VARRO_MQTT_KEYFILE ") +
                key + ": " + openssl_error());
        }
    }
    // Every session of the context inherits the name to match: an address
    // literal must be among the certificate's addresses, a name among its
    // names.
    X509_VERIFY_PARAM* param = SSL_CTX_get0_param(ctx.get());
    if (!X509_VERIFY_PARAM_set1_ip_asc(param, s.host.c_str())) {
        ERR_clear_error();
        X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        X509_VERIFY_PARAM_set1_host(param, s.host.c_str(), 0);
    }
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, remember_refusal);
    return ctx;
}

std::string mqtt_tls_take_refusal() {
    std::string why = refusal == X509_V_OK ? "" : X509_verify_cert_error_string(refusal);
    refusal = X509_V_OK;
    return why;
}

}  // namespace tessel_os_varro
