#!/bin/sh
# Regenerates the seeds: the assertions of ../SamlTokenFuzz (signed by the trusted test STS key),
# and "reject-*" variants: altered after signing, and signed by an untrusted key.
set -e
cd "$(dirname "$0")"
certs=../../../tests/data/certs
cp ../SamlTokenFuzz/bearer.xml ../SamlTokenFuzz/hok.xml .
sed 's/alice@example.test/mallory@example.test/' bearer.xml > reject-altered-subject.xml
sed 's/Count="2"/Count="9"/' bearer.xml > reject-altered-renew-count.xml
xmlsec1 --sign --privkey-pem $certs/other-rsa.key,$certs/other-rsa.pem \
    --id-attr:ID urn:oasis:names:tc:SAML:2.0:assertion:Assertion \
    --output reject-untrusted-signer.xml hok.xml 2>/dev/null
