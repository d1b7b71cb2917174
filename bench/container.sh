#!/usr/bin/env bash
# Compares "docadmin container pack/unpack" with gzip on a 64 MiB mixed corpus (text, a binary,
# random bytes): throughput ratios, sizes and peak resident memory; then peak memory on 1 GiB.
# Usage: bench/container.sh [MiB of the big file for the memory check, default 1024; 0 skips]
set -euo pipefail
cd "$(dirname "$0")/.."
# BENCH_BUILD_DIR picks another build folder than build/release (for instance while someone else
# builds there).
build=${BENCH_BUILD_DIR:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" -j2 --target docadmin | grep -E "error|FAILED" || true
bin=$PWD/$build/apps/docadmin/docadmin
big=${1:-1024}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# 64 MiB: 24 MiB of text, 24 MiB of binaries, 16 MiB of random bytes. head closes the pipes
# early, which is no failure here.
set +o pipefail
{
    # Text: the project's own sources and documents, repeated.
    for _ in $(seq 1 200); do git ls-files -z '*.cpp' '*.h' '*.md' | xargs -0 cat; done |
        head -c $((24 << 20))
    for _ in 1 2 3 4; do
        find /usr/bin /usr/lib -type f -size +200k 2>/dev/null | sort | head -100 |
            xargs cat 2>/dev/null
    done | head -c $((24 << 20))
    head -c $((16 << 20)) /dev/urandom
} >"$work/corpus"
set -o pipefail
size=$(stat -c %s "$work/corpus")

# Best of three wall times, in seconds.
best() {
    local b=""
    for _ in 1 2 3; do
        local s e
        s=$(date +%s.%N)
        "$@"
        e=$(date +%s.%N)
        b=$(echo "$s $e ${b:-999}" | awk '{t=$2-$1; print (t<$3)?t:$3}')
    done
    echo "$b"
}
peak_kb() { /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -1; }

t_pack=$(best "$bin" container pack "$work/corpus" "$work/c")
t_gz=$(best sh -c "gzip -9 -c '$work/corpus' >'$work/c.gz'")
t_unpack=$(best "$bin" container unpack "$work/c" "$work/out")
t_gunzip=$(best sh -c "gzip -dc '$work/c.gz' >'$work/out.gz'")
cmp -s "$work/corpus" "$work/out" || { echo "unpack differs" >&2; exit 1; }
s_ecl=$(stat -c %s "$work/c")
s_gz=$(stat -c %s "$work/c.gz")
m_pack=$(peak_kb "$bin" container pack "$work/corpus" "$work/c")
m_unpack=$(peak_kb "$bin" container unpack "$work/c" "$work/out")

echo "load average before the runs: $(cut -d' ' -f1-3 /proc/loadavg)"
awk -v n="$size" -v tp="$t_pack" -v tg="$t_gz" -v tu="$t_unpack" -v td="$t_gunzip" \
    -v se="$s_ecl" -v sg="$s_gz" -v mp="$m_pack" -v mu="$m_unpack" 'BEGIN {
    mib = n / 1048576
    printf "corpus            %d bytes (%.0f MiB), %d cores\n", n, mib, '"$(nproc)"'
    printf "pack zlibMax      %6.3f s  %7.1f MiB/s   peak %6.1f MiB\n", tp, mib / tp, mp / 1024
    printf "gzip -9           %6.3f s  %7.1f MiB/s\n", tg, mib / tg
    printf "unpack            %6.3f s  %7.1f MiB/s   peak %6.1f MiB\n", tu, mib / tu, mu / 1024
    printf "gzip -dc          %6.3f s  %7.1f MiB/s\n", td, mib / td
    printf "size container    %d bytes\nsize gzip -9      %d bytes\n", se, sg
    printf "ratio pack/gzip -9 throughput   %.2fx (target >= 1.8)\n", tg / tp
    printf "ratio unpack/gzip -dc throughput %.2fx (target >= 1.0)\n", td / tu
    printf "size container/gzip -9           %.4f (target <= 1.01)\n", se / sg
}'

if [[ $big -gt 0 ]]; then
    # Mixed too: half text, half random, so both the deflate and the stored paths run.
    { yes "the quick brown fox jumps over the lazy document store" | head -c $((big << 19)) || true
      head -c $((big << 19)) /dev/urandom; } >"$work/big"
    rm -f "$work/corpus" "$work/c" "$work/c.gz" "$work/out" "$work/out.gz"
    mb=$(peak_kb "$bin" container pack "$work/big" "$work/bigc")
    mu=$(peak_kb "$bin" container unpack "$work/bigc" "$work/bigout")
    cmp -s "$work/big" "$work/bigout" || { echo "big unpack differs" >&2; exit 1; }
    printf "peak memory on %d MiB: pack %.1f MiB, unpack %.1f MiB (target < 64)\n" "$big" \
        "$(echo "$mb / 1024" | bc -l)" "$(echo "$mu / 1024" | bc -l)"
fi
