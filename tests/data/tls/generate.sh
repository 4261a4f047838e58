#!/usr/bin/env bash
# Regenerates the TLS fixtures of the HTTP and transport tests: a test CA, an untrusted CA, and
# server and client certificates signed by them (EC P-256, valid for a century unless noted).
#   ca.pem / ca.key                  trusted test CA
#   other-ca.pem / other-ca.key      a CA the tests never trust
#   server.pem / server.key          localhost, sts.test, 127.0.0.1, ::1
#   names-only.pem / .key            sts.test only (no IP address, for the server-name override)
#   wrong-host.pem / .key            wrong.example only
#   expired.pem / .key               localhost, 127.0.0.1; expired in 2020
#   untrusted.pem / .key             localhost, 127.0.0.1; signed by other-ca
#   client.pem / client.key          a client certificate (clientAuth) signed by ca
set -euo pipefail
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2>/dev/null; }

make_ca() {
    key "$1"
    openssl req -x509 -new -key "$1.key" -subj "/O=Basalt Tests/CN=$2" -days 36500 \
        -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
        -out "$1.pem"
}

# sign <name> <ca> <subject CN> <extensions> [startdate enddate]
sign() {
    local name=$1 ca=$2 cn=$3 ext=$4
    key "$name"
    openssl req -new -key "$name.key" -subj "/O=Basalt Tests/CN=$cn" -out "$work/$name.csr"
    printf '%s\n' "$ext" > "$work/$name.ext"
    if [ $# -ge 6 ]; then
        # openssl x509 cannot back-date; a throw-away "ca" database can.
        mkdir -p "$work/db" && : > "$work/db/index" && echo 01 > "$work/db/serial"
        cat > "$work/ca.cnf" <<CNF
[ca]
default_ca = test
[test]
database = $work/db/index
serial = $work/db/serial
new_certs_dir = $work/db
default_md = sha256
policy = any
copy_extensions = none
[any]
commonName = supplied
organizationName = optional
CNF
        openssl ca -batch -config "$work/ca.cnf" -cert "$ca.pem" -keyfile "$ca.key" \
            -startdate "$5" -enddate "$6" -extfile "$work/$name.ext" \
            -in "$work/$name.csr" -out "$name.pem" -notext 2>/dev/null
    else
        openssl x509 -req -in "$work/$name.csr" -CA "$ca.pem" -CAkey "$ca.key" -CAcreateserial \
            -days 36500 -sha256 -extfile "$work/$name.ext" -out "$name.pem" 2>/dev/null
    fi
}

server_ext() { printf 'basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\nsubjectAltName=%s' "$1"; }

make_ca ca "Basalt Test CA"
make_ca other-ca "Untrusted Test CA"
sign server ca localhost "$(server_ext 'DNS:localhost,DNS:sts.test,IP:127.0.0.1,IP:::1')"
sign names-only ca sts.test "$(server_ext 'DNS:sts.test')"
sign wrong-host ca wrong.example "$(server_ext 'DNS:wrong.example')"
sign expired ca localhost "$(server_ext 'DNS:localhost,IP:127.0.0.1')" 20200101000000Z 20200201000000Z
sign untrusted other-ca localhost "$(server_ext 'DNS:localhost,IP:127.0.0.1')"
sign client ca "Test Client" "$(printf 'basicConstraints=CA:FALSE\nextendedKeyUsage=clientAuth')"
rm -f ./*.srl
