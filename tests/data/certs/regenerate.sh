#!/bin/sh
# Regenerates the test certificates and keys in this folder (valid for 100 years).
set -e
cd "$(dirname "$0")"
subj_ca="/C=US/O=Example Test/CN=Test STS Signing"
openssl req -x509 -newkey rsa:2048 -nodes -keyout sts-rsa.key -out sts-rsa.pem -days 36500 \
    -subj "$subj_ca" -set_serial 4660 -sha256 2>/dev/null
openssl x509 -in sts-rsa.pem -outform DER -out sts-rsa.der
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout user-ec.key \
    -out user-ec.pem -days 36500 -subj "/CN=user@example.test" -set_serial 7 2>/dev/null
openssl req -x509 -newkey rsa:2048 -nodes -keyout other-rsa.key -out other-rsa.pem -days 36500 \
    -subj "/CN=Untrusted" -set_serial 99 2>/dev/null
openssl pkcs8 -topk8 -in sts-rsa.key -out sts-rsa-encrypted.key -v2 aes-256-cbc \
    -passout pass:correct-horse
openssl rsa -in sts-rsa.key -traditional -out sts-rsa-traditional.key 2>/dev/null
