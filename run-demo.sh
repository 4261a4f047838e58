#!/usr/bin/env bash
# The demo: installs what is missing, builds the library and examples/sso_demo, starts the
# loopback test STS, runs the demo against it, and stops the STS again.
set -euo pipefail
cd "$(dirname "$0")"

tools/install-packages.sh
cmake --preset release -DSSOCLIENT_BUILD_TESTS=OFF -DSSOCLIENT_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build --preset release -j "$(nproc)" --target sso_demo

# The STS prints "READY <port>" once it listens and stops when its stdin closes.
coproc STS { exec /usr/bin/python3 tests/sts/wstrust_sts.py; }
sts_in=${STS[1]}
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
build/release/examples/sso_demo "https://localhost:$port/sts/STSService" tests/data/sts "$jwt" ||
    status=$?
exec {sts_in}>&-
wait "$STS_PID" 2>/dev/null || true
exit $status
