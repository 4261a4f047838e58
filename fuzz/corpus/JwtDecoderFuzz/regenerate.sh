#!/bin/sh
# Regenerates the seeds: tokens of tests/data/jwt/tokens.txt (signed by PyJWT and jwcrypto with the
# keys the fuzz target trusts) and malformed tokens ("reject-*") the decoder must refuse.
set -e
cd "$(dirname "$0")"
tokens=../../../tests/data/jwt/tokens.txt
b64url() { printf '%s' "$1" | base64 -w0 | tr '+/' '-_' | tr -d '='; }
for name in RS256-pyjwt ES256-jwcrypto EdDSA-pyjwt PS384-jwcrypto; do
    grep "^$name " $tokens | cut -d' ' -f2 | tr -d '\n' > "$name.jwt"
done
rs256=$(grep '^RS256-pyjwt ' $tokens | cut -d' ' -f2)
payload=$(echo "$rs256" | cut -d. -f2)
signature=$(echo "$rs256" | cut -d. -f3)
printf '%s' "$(echo "$rs256" | cut -d. -f1-2)" > reject-two-segments.jwt
printf '%s.%s.%s' "$(b64url '{"alg":"RS256","alg":"none"}')" "$payload" "$signature" \
    > reject-duplicate-header-member.jwt
printf '%s.%s.%s' "$(b64url '{"alg":"RS256","crit":["exp"]}')" "$payload" "$signature" \
    > reject-crit-header.jwt
printf '%s==' "$rs256" > reject-padding.jwt
