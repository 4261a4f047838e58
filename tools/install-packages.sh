#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when any is missing.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    libxml2-dev libxmlsec1-dev libssl-dev libcurl4-openssl-dev uuid-dev libboost-dev
    libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev libcli11-dev
    openssl xmlsec1 xml-security-c-utils
    python3 python3-lxml python3-xmlsec python3-cryptography python3-jwt python3-jwcrypto
    libkrb5-dev krb5-user krb5-kdc krb5-admin-server python3-gssapi
)
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    echo "Installing: ${missing[*]}"
    $sudo apt-get update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
