#!/bin/bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer, libraries
# instrumented for coverage) in build/fuzz and runs each for a while, two at a time, at the lowest
# priority. New inputs go to build/fuzz/corpus/<target>/ (the seeds in fuzz/corpus/<target>/ are
# only read), crashes to build/fuzz/crashes/<target>/, logs to build/fuzz/logs/<target>.log.
#
#   fuzz/run.sh [-t SECONDS_PER_TARGET] [TARGET...]     (default: 600 s, every fuzz/*.cpp)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz
seconds=600
if [ "${1:-}" = -t ]; then
    seconds=$2
    shift 2
fi
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for source in "$root"/fuzz/*.cpp; do
        targets+=("$(basename "$source" .cpp)")
    done
fi

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DSSOCLIENT_BUILD_FUZZERS=ON -DSSOCLIENT_BUILD_TESTS=OFF \
    -DSSOCLIENT_SANITIZE=address,undefined \
    -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link >/dev/null
cmake --build "$build" -j2 --target "${targets[@]}"

# OpenSSL's caches (decoders, fetched algorithms) grow with new inputs, and libFuzzer runs a full
# leak scan after every input that does not free what it allocated: that makes these targets some
# 20 times slower. They fuzz without the scan, and their whole corpus is replayed with it after.
declare -A kLeakCheckAfterwards=([CryptoFuzz]=1)

# Runs one target and prints its line of the summary.
fuzz_one() {
    local name=$1 log=$build/logs/$1.log status=ok leaks=1
    local corpora=("$build/corpus/$name" "$root/fuzz/corpus/$name")
    [ -n "${kLeakCheckAfterwards[$name]:-}" ] && leaks=0
    mkdir -p "$build/corpus/$name" "$build/crashes/$name" "$build/logs"
    nice -n 19 "$build/fuzz/$name" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
        -detect_leaks=$leaks -artifact_prefix="$build/crashes/$name/" "${corpora[@]}" \
        >"$log" 2>&1 || status="FAILED (see $log)"
    if [ $leaks = 0 ] && [ "$status" = ok ]; then
        nice -n 19 "$build/fuzz/$name" -runs=0 -artifact_prefix="$build/crashes/$name/" \
            "${corpora[@]}" >"$log.leaks" 2>&1 || status="LEAK (see $log.leaks)"
    fi
    local last execs
    last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 | grep -oE 'cov: [0-9]+ ft: [0-9]+ corp: [^ ]+' ||
        true)
    execs=$(grep -oE 'stat::average_exec_per_sec: *[0-9]+' "$log" | grep -oE '[0-9]+$' || true)
    printf '%-22s %8s execs/s  %-36s %s\n' "$name" "${execs:-?}" "${last:-?}" "$status"
}

# Two at a time: the machine has two cores.
running=0
for name in "${targets[@]}"; do
    if [ $running -ge 2 ]; then
        wait -n || true
        running=$((running - 1))
    fi
    fuzz_one "$name" &
    running=$((running + 1))
done
wait
