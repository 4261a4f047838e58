#!/bin/sh
# Regenerates the XML test fixtures in this folder: an attacker's certificate that copies the
# trusted STS certificate's subject name (but has its own key).
set -e
cd "$(dirname "$0")"
openssl req -x509 -newkey rsa:2048 -nodes -keyout attacker-rsa.key -out attacker-rsa.pem \
    -days 36500 -subj "/C=US/O=Example Test/CN=Test STS Signing" -set_serial 4660 -sha256 2>/dev/null
