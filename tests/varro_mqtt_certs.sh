#!/usr/bin/env bash
# Makes a test CA and the certificates a TLS broker test needs in DIR:
# ca.crt (the CA), other-ca.crt (a CA nobody signed with), server.crt for
# 127.0.0.1 and localhost, expired.crt (the same, expired), elsewhere.crt
# (for another name), client.crt (user radar); keys next to each.
# Usage: varro_mqtt_certs.sh DIR
set -euo pipefail
cd "$1"
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:prime256v1 -out "$1.key"; }
ca() {
    key "$1"
    openssl req -x509 -new -key "$1.key" -out "$1.crt" -subj "/CN=$1" -days 2
}
# sign KEY SUBJECT OUT DAYS ALT-NAMES: OUT.crt for KEY.key, signed by the CA
sign() {
    [[ -e $1.key ]] || key "$1"
    openssl req -new -key "$1.key" -subj "/CN=$2" -out "$1.csr"
    openssl x509 -req -in "$1.csr" -CA ca.crt -CAkey ca.key -set_serial "$RANDOM$RANDOM" \
        -days "$4" -out "$3.crt" -extfile <(echo "subjectAltName=$5")
}
{
    ca ca
    ca other-ca
    sign server server server 2 IP:127.0.0.1,DNS:localhost
    sign server server expired -1 IP:127.0.0.1,DNS:localhost
    sign server server elsewhere 2 DNS:elsewhere.invalid
    sign client radar client 2 email:radar@localhost
} 2>/dev/null
# A broker started as root reads them as its own user.
chmod 644 ./*.key
