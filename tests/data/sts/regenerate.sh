#!/bin/sh
# Regenerates the loopback test STS's certificates and keys (valid for 100 years):
#   ca.pem/ca.key                 test CA that signs everything below
#   server.pem/server.key         HTTPS server certificate for localhost and 127.0.0.1
#   signing.pem/signing.key       the STS's token-signing certificate and key
#   client.pem/client.key         a holder-of-key client certificate (CN=client-solution)
#   other-client.pem/.key         a second, unrelated client certificate (CN=other-client)
set -e
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 36500 -sha256 \
    -subj "/O=Example Test/CN=Test STS CA" -set_serial 1 \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    2>/dev/null

# issue <name> <subject> <serial> <extensions>
issue() {
    openssl req -newkey rsa:2048 -nodes -keyout "$1.key" -out "$tmp/$1.csr" -subj "$2" 2>/dev/null
    printf '%b\n' "$4" > "$tmp/$1.ext"
    openssl x509 -req -in "$tmp/$1.csr" -CA ca.pem -CAkey ca.key -set_serial "$3" -days 36500 \
        -sha256 -extfile "$tmp/$1.ext" -out "$1.pem" 2>/dev/null
}
issue server "/O=Example Test/CN=localhost" 2 \
    "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature,keyEncipherment\nextendedKeyUsage=serverAuth\nsubjectAltName=DNS:localhost,IP:127.0.0.1"
issue signing "/O=Example Test/CN=Test STS Token Signing" 3 \
    "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature"
issue client "/O=Example Test/CN=client-solution" 4 \
    "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=clientAuth"
issue other-client "/O=Example Test/CN=other-client" 5 \
    "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=clientAuth"
