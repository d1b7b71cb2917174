#!/usr/bin/env bash
# The local store against the tools it replaces, on one file in one run: "docadmin store put/get"
# plain (--no-compression) next to cp, and compressed next to "docadmin container pack/unpack"
# and gzip -9 / gzip -dc. Prints best-of-N wall times and the throughput ratios.
# Targets: plain put and get >= 0.8x cp; compressed put and get >= 1.0x container pack/unpack.
# A store put also flushes the file to disk before it renames it into place; "cp + sync" is
# printed beside cp to show what that flush costs.
#   bench/store.sh [MiB, default 256] [runs, default 3]
set -euo pipefail
cd "$(dirname "$0")/.."
mib=${1:-256}
runs=${2:-3}
# BENCH_BUILD_DIR picks another build folder than build/release.
build=${BENCH_BUILD_DIR:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" -j2 --target docadmin >/dev/null
bin=$PWD/$build/apps/docadmin/docadmin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export DOCADMIN_DATA=$work/data
unset DOCADMIN_CONFIG

# Mixed content: 3/8 text, 3/8 binaries, 1/4 random bytes.
n=$((mib << 20))
{
    for _ in $(seq 1 400); do cat README.md CMakeLists.txt src/*/*.h src/*/*.cpp 2>/dev/null; done |
        head -c $((n * 3 / 8)) || true
    for _ in $(seq 1 40); do cat /usr/bin/* 2>/dev/null; done | head -c $((n * 3 / 8)) || true
    head -c $((n - n * 3 / 8 * 2)) /dev/urandom
} >"$work/in"
size=$(stat -c %s "$work/in")

# Best wall time of $runs runs, in seconds; the command's stdout goes to $work/last. Before each
# run the output file $1 is removed and everything is synced, outside the timing: overwriting a
# large file that still stands makes the run pay for freeing (and discarding) its blocks, which
# made single runs swing by a factor of four. The input stays in the page cache for every tool.
best() {
    local out=$1 b=999999
    shift
    for _ in $(seq 1 "$runs"); do
        rm -f "$out"
        sync
        cat "$work/in" >/dev/null
        local s e
        s=$(date +%s.%N)
        "$@" >"$work/last"
        e=$(date +%s.%N)
        b=$(echo "$s $e $b" | awk '{t=$2-$1; print (t<$3)?t:$3}')
    done
    echo "$b"
}
# Puts leave one new file per run in the store; all but the last run's are dropped.
best_put() {
    local b=999999 prev=
    for _ in $(seq 1 "$runs"); do
        [ -n "$prev" ] && rm -f "$DOCADMIN_DATA/docroot/$prev"
        sync
        cat "$work/in" >/dev/null
        local s e
        s=$(date +%s.%N)
        "$bin" store put "$@" >"$work/last"
        e=$(date +%s.%N)
        prev=$(cat "$work/last")
        b=$(echo "$s $e $b" | awk '{t=$2-$1; print (t<$3)?t:$3}')
    done
    echo "$b"
}
t_cp=$(best "$work/cp" cp "$work/in" "$work/cp")
t_cpsync=$(best "$work/cp" sh -c "cp '$work/in' '$work/cp' && sync '$work/cp'")
t_put=$(best_put --no-compression "$work/in")
plain=$(cat "$work/last")
t_get=$(best "$work/out" "$bin" store get "$plain" "$work/out")
cmp -s "$work/in" "$work/out" || { echo "plain get differs" >&2; exit 1; }
cmp -s "$work/in" "$DOCADMIN_DATA/docroot/$plain" || { echo "plain put differs" >&2; exit 1; }
rm -f "$DOCADMIN_DATA"/docroot/* "$work/cp" "$work/out"

t_cput=$(best_put "$work/in")
packed=$(cat "$work/last")
t_cget=$(best "$work/out" "$bin" store get "$packed" "$work/out")
cmp -s "$work/in" "$work/out" || { echo "compressed get differs" >&2; exit 1; }
t_pack=$(best "$work/c" "$bin" container pack "$work/in" "$work/c")
t_unpack=$(best "$work/out" "$bin" container unpack "$work/c" "$work/out")
t_gz=$(best "$work/in.gz" sh -c "gzip -9 -c '$work/in' >'$work/in.gz'")
t_gunzip=$(best "$work/out" sh -c "gzip -dc '$work/in.gz' >'$work/out'")
s_store=$(stat -c %s "$DOCADMIN_DATA/docroot/$packed")
s_gz=$(stat -c %s "$work/in.gz")

echo "load average at the end: $(cut -d" " -f1-3 /proc/loadavg)"
awk -v n="$size" -v runs="$runs" -v cp="$t_cp" -v cps="$t_cpsync" -v put="$t_put" \
    -v get="$t_get" -v cput="$t_cput" -v cget="$t_cget" -v pack="$t_pack" -v unpack="$t_unpack" \
    -v gz="$t_gz" -v gunzip="$t_gunzip" -v ss="$s_store" -v sg="$s_gz" 'BEGIN {
    m = n / 1048576
    printf "file %d bytes (%.0f MiB), best of %d, %d cores\n", n, m, runs, '"$(nproc)"'
    row("cp", cp); row("cp + sync", cps)
    row("store put, plain", put); row("store get, plain", get)
    row("store put, compressed", cput); row("store get, compressed", cget)
    row("container pack", pack); row("container unpack", unpack)
    row("gzip -9", gz); row("gzip -dc", gunzip)
    printf "sizes: store %d, gzip -9 %d (%.4f)\n", ss, sg, ss / sg
    printf "ratio plain put / cp              %.2fx (target >= 0.8)\n", cp / put
    printf "ratio plain get / cp              %.2fx (target >= 0.8)\n", cp / get
    printf "ratio plain put / cp + sync       %.2fx\n", cps / put
    printf "ratio compressed put / pack       %.2fx (target >= 1.0)\n", pack / cput
    printf "ratio compressed get / unpack     %.2fx (target >= 1.0)\n", unpack / cget
    printf "ratio compressed put / gzip -9    %.2fx\n", gz / cput
    printf "ratio compressed get / gzip -dc   %.2fx\n", gunzip / cget
}
function row(name, t) { printf "%-24s %7.3f s %8.1f MiB/s\n", name, t, m / t }'
