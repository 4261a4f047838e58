#!/usr/bin/env bash
# The demo: installs what is missing, builds the library and examples/sso_demo, starts a loopback
# Kerberos KDC and the loopback test STS, runs the demo against them, and stops both again.
set -euo pipefail
cd "$(dirname "$0")"

tools/install-packages.sh
cmake --preset release -DSSOCLIENT_BUILD_TESTS=OFF -DSSOCLIENT_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build --preset release -j "$(nproc)" --target sso_demo

# A throw-away Kerberos realm: kdc.py prints "READY <port> <dir>" once its KDC runs and removes
# everything when its stdin closes. Kerberos is configured through the environment, as a user's
# would be: krb5.conf, and alice's password-initialised (kinit) cache as the default cache.
kdc_out=$(mktemp -u)
mkfifo "$kdc_out"
exec {kdc_in}> >(exec /usr/bin/python3 tests/sts/kdc.py >"$kdc_out")
kdc_pid=$!
read -r _ _ kdc_dir <"$kdc_out"
rm -f "$kdc_out"
if [ -z "$kdc_dir" ]; then
    echo "the test KDC did not start" >&2
    exit 1
fi
export KRB5_CONFIG=$kdc_dir/krb5.conf KRB5CCNAME=FILE:$kdc_dir/alice.ccache KRB5RCACHEDIR=$kdc_dir
echo "Test KDC for SSOCLIENT.TEST running, files in $kdc_dir"

# The STS prints "READY <port>" once it listens and stops when its stdin closes; it accepts
# Kerberos with the service keytab of HTTP/localhost.
coproc STS { exec /usr/bin/python3 tests/sts/wstrust_sts.py --keytab "$kdc_dir/http.keytab"; }
sts_in=${STS[1]}
sts_pid=$STS_PID  # bash unsets STS_PID once the coprocess has ended
port=""
while read -r line <&"${STS[0]}"; do
    if [[ $line =~ ^READY\ ([0-9]+) ]]; then
        port=${BASH_REMATCH[1]}
        break
    fi
done
if [ -z "$port" ]; then
    echo "the test STS did not start" >&2
    exit 1
fi
echo "Test STS listening on https://localhost:$port/sts/STSService"
# A bearer JWT as the STS's issuer signs it, for the resource-server part of the demo.
jwt=$(/usr/bin/python3 tests/sts/issue_jwt.py alice@example.test "Alice Liddell" \
    Users@example.test Readers@example.test)
status=0
build/release/examples/sso_demo "https://localhost:$port/sts/STSService" tests/data/sts "$jwt" \
    "$kdc_dir/bob.keytab" || status=$?
exec {sts_in}>&-
wait "$sts_pid" 2>/dev/null || true
exec {kdc_in}>&-
wait "$kdc_pid" 2>/dev/null || true
exit $status
