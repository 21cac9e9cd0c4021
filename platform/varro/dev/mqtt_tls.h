// TLS context of the MQTT backend: the broker's certificate must chain to
// VARRO_MQTT_CAFILE (or the system's CAs) and name the URL's host; the
// client shows VARRO_MQTT_CERTFILE where one is given.
#pragma once

#include "mqtt_settings.h"

#include <openssl/ssl.h>

#include <expected>
#include <memory>
#include <string>

namespace tessel_os_varro {

struct ssl_ctx_free_t {
    void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
using mqtt_tls_t = std::unique_ptr<SSL_CTX, ssl_ctx_free_t>;

// The context for `settings`, or why its files cannot be used.
std::expected<mqtt_tls_t, std::string> mqtt_tls_create(const mqtt_settings_t& settings);

// Why the last handshake on the calling thread refused the broker's
// certificate ("certificate has expired"), or empty; cleared by the call.
std::string mqtt_tls_take_refusal();

}  // namespace tessel_os_varro
