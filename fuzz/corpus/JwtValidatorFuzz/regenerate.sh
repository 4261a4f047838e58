#!/bin/sh
# Regenerates the seeds: tokens of tests/data/jwt/tokens.txt signed with the trusted keys, and
# "reject-*" tokens the validator must refuse (untrusted key, a wrong signature).
set -e
cd "$(dirname "$0")"
tokens=../../../tests/data/jwt/tokens.txt
token() { grep "^$1 " $tokens | cut -d' ' -f2 | tr -d '\n'; }
for name in RS256-pyjwt ES256-jwcrypto EdDSA-jwcrypto PS256-pyjwt; do
    token $name > "$name.jwt"
done
token ES384-pyjwt > reject-untrusted-key.jwt
token HS256-keyed-with-rsa.pub > reject-hmac-keyed-with-public-key.jwt
rs256=$(token RS256-pyjwt)
printf '%s' "$(token ES256-pyjwt | cut -d. -f1-2).$(echo "$rs256" | cut -d. -f3)" \
    > reject-foreign-signature.jwt
