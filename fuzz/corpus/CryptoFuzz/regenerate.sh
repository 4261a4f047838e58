#!/bin/sh
# Regenerates the seeds from the test certificates and keys, each behind the byte that picks the
# parser ("0" DER, "1" PEM, "2" PEM list, "3" private key); "reject-*" must be refused.
set -e
cd "$(dirname "$0")"
certs=../../../tests/data/certs
seed() { name=$1 selector=$2; shift 2; { printf '%s' "$selector"; cat "$@"; } > "$name"; }
seed der.bin 0 $certs/sts-rsa.der
seed pem-ec.pem 1 $certs/user-ec.pem
seed pem-list.pem 2 $certs/sts-rsa.pem $certs/user-ec.pem $certs/other-rsa.pem
seed key-rsa-with-certificate.pem 3 $certs/sts-rsa.key $certs/sts-rsa.pem
seed key-ec-with-certificate.pem 3 $certs/user-ec.key $certs/user-ec.pem
seed key-rsa-encrypted.pem 3 $certs/sts-rsa-encrypted.key
seed key-rsa-traditional.pem 3 $certs/sts-rsa-traditional.key
{ cat der.bin; printf x; } > reject-der-trailing-byte.bin
head -c 300 pem-ec.pem > reject-pem-truncated.pem
seed reject-pem-key-only.pem 1 $certs/user-ec.key
seed reject-key-ed25519.pem 3 ../../../tests/data/jwt/ed25519.key
