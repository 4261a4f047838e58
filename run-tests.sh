#!/usr/bin/env bash
# The project's one test command: installs what is missing, builds with AddressSanitizer and
# UndefinedBehaviorSanitizer and runs every test, then runs the suites again under
# ThreadSanitizer. Usage: ./run-tests.sh [--no-tsan]
set -euo pipefail
cd "$(dirname "$0")"

tools/install-packages.sh

jobs=$(nproc)
cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs"

if [ "${1:-}" != "--no-tsan" ]; then
    # Known false positives of uninstrumented system libraries (see the file).
    export TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp ${TSAN_OPTIONS:-}"
    cmake --preset tsan
    cmake --build --preset tsan -j "$jobs" --target basalt_tests ssoclient_tests secret_wiping_tests
    # The install and symbol checks and the test STS's self-test do not depend on the sanitizer;
    # they ran above.
    ctest --preset tsan -j "$jobs" -E '^(exported_symbols|install_and_consume|.*_replay)$'
fi
