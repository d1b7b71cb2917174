#!/usr/bin/env bash
# Races of several writers on one tree, many times over, then every row checked against the store
# both ways:
#   - parallel replaces of one document (3 at once),
#   - rm against replace of the same document,
#   - SIGKILL during a replace of a large file (with and without archive),
#   - a long import against replaces of other documents,
#   - first use of a fresh data folder by several processes at once.
# Afterwards every row of docadmindocs and docadmin_docarchive must name a file that the store
# delivers with the row's size, and every file of the store must be named by a row (or be a
# temporary of a live process). Lost updates: successful replaces that did not raise the version.
#   bench/race.sh [RUNS, default 20] [FOLDERS of 200 files in the long import, default 10]
# DOCADMIN_BIN names a built program to use instead of building the release preset (the tests run
# a short round with the dev build).
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-20}
long_dirs=${2:-10}
bin=${DOCADMIN_BIN:-}
if [[ -z $bin ]]; then
    cmake --preset release >/dev/null
    cmake --build build/release -j2 --target docadmin >/dev/null
    bin=$PWD/build/release/apps/docadmin/docadmin
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/docadmin-race.XXXXXX")
trap 'rm -rf "$work"' EXIT
unset DOCADMIN_CONFIG
export DOCADMIN_DATA=$work/data
db=$DOCADMIN_DATA/docadmin.db
q() { sqlite3 -cmd ".timeout 60000" "$db" "$1"; }
failures=0
fail() {
    echo "race: $*" >&2
    failures=$((failures + 1))
}

# ---- first use of a fresh data folder by four processes at once
mkdir -p "$work/first"
for p in 1 2 3 4; do
    mkdir -p "$work/first/p$p"
    echo "first $p" >"$work/first/p$p/f.txt"
done
pids=()
for p in 1 2 3 4; do
    "$bin" import "$work/first/p$p" --path "\"first\"" >"$work/first.$p.log" 2>&1 &
    pids+=($!)
done
first_failed=0
for pid in "${pids[@]}"; do wait "$pid" || first_failed=$((first_failed + 1)); done
[[ $first_failed -eq 0 ]] || fail "first use: $first_failed of 4 processes failed: $(cat "$work"/first.*.log)"
[[ $(q "select count(*) from docadmindir where title = 'first'") -eq 1 ]] ||
    fail "first use: the folder \"first\" exists $(q "select count(*) from docadmindir where title = 'first'") times"

# ---- documents to race on
mkdir -p "$work/docs"
for i in $(seq 1 40); do head -c $((1000 + i)) /dev/urandom >"$work/docs/d$i.bin"; done
"$bin" import "$work/docs" --path '"race"' >/dev/null
mapfile -t ids < <(q "select id from docadmindocs where docname like 'd%.bin' order by id")
for v in 1 2 3; do head -c $((2000 * v + 7)) /dev/urandom >"$work/v$v.bin"; done
head -c $((30 * 1024 * 1024)) /dev/urandom >"$work/big.bin"
version() { q "select flversion from docadmindocs where id = $1" | awk -F. '{print $4}'; }

replaced=0
lost=0
refused=0
other_errors=0
next=0
take_id() {
    id=${ids[$next]}
    next=$(((next + 1) % ${#ids[@]}))
}

for run in $(seq 1 "$runs"); do
    # Three replaces of one document at once: each either raises the version or is refused.
    take_id
    before=$(version "$id")
    pids=()
    for v in 1 2 3; do
        "$bin" replace "$id" "$work/v$v.bin" >"$work/r$v.log" 2>&1 &
        pids+=($!)
    done
    ok=0
    for v in 1 2 3; do
        if wait "${pids[$((v - 1))]}"; then
            ok=$((ok + 1))
        elif grep -q "changed or removed by another user" "$work/r$v.log"; then
            refused=$((refused + 1))
        else
            other_errors=$((other_errors + 1))
            fail "replace: $(cat "$work/r$v.log")"
        fi
    done
    after=$(version "$id")
    replaced=$((replaced + ok))
    lost=$((lost + ok - (after - before)))

    # rm against replace of the same document.
    take_id
    "$bin" rm "$id" >"$work/rm.log" 2>&1 &
    p1=$!
    "$bin" replace "$id" "$work/v1.bin" >"$work/rr.log" 2>&1 &
    p2=$!
    wait "$p1" || grep -q "changed or removed by another user\|not found" "$work/rm.log" ||
        fail "rm: $(cat "$work/rm.log")"
    if wait "$p2"; then replaced=$((replaced + 1)); else
        grep -q "changed or removed by another user\|not found" "$work/rr.log" ||
            fail "replace against rm: $(cat "$work/rr.log")"
    fi
    mapfile -t ids < <(q "select id from docadmindocs where docname like 'd%.bin' order by id")
    [[ ${#ids[@]} -gt 4 ]] || {
        "$bin" import "$work/docs" --path "\"race\",\"more$run\"" >/dev/null
        mapfile -t ids < <(q "select id from docadmindocs where docname like 'd%.bin' order by id")
    }

    # SIGKILL during a replace of a large file.
    take_id
    flags=()
    [[ $((run % 2)) -eq 0 ]] && flags=(--no-archive)
    "$bin" replace "$id" "$work/big.bin" "${flags[@]}" >/dev/null 2>&1 &
    pid=$!
    sleep "0.$((RANDOM % 9 + 1))"
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
done

# A long import against replaces of other documents: the replaces wait their turn.
mkdir -p "$work/long"
for d in $(seq 1 "$long_dirs"); do
    mkdir -p "$work/long/d$d"
    for f in $(seq 1 200); do head -c 2048 /dev/urandom >"$work/long/d$d/f$f.bin"; done
done
"$bin" import "$work/long" --path '"long"' >"$work/long.log" 2>&1 &
import_pid=$!
during=0
while kill -0 "$import_pid" 2>/dev/null; do
    take_id
    if "$bin" replace "$id" "$work/v2.bin" >"$work/ri.log" 2>&1; then
        during=$((during + 1))
        replaced=$((replaced + 1))
    else
        fail "replace during import: $(cat "$work/ri.log")"
    fi
done
wait "$import_pid" || fail "import: $(cat "$work/long.log")"

# ---- every row against the store, both ways
store=$(dirname "$(find "$DOCADMIN_DATA" -name '[0-9A-F]*' -type f -size +0 | grep -E '/[0-9A-F]{32}$' | head -1)")
rows_checked=0
rows_without_file=0
while IFS='|' read -r table rid remote size; do
    rows_checked=$((rows_checked + 1))
    if ! "$bin" store get "$remote" "$work/check.out" --expect-size "$size" >/dev/null 2>"$work/check.log"; then
        rows_without_file=$((rows_without_file + 1))
        echo "race: $table row $rid: $remote: $(cat "$work/check.log")" >&2
    fi
done < <(q "select 'docadmindocs', id, fllocname, flsize from docadmindocs
            union all select 'docadmin_docarchive', id, fllocname, flsize from docadmin_docarchive")
named=$(q "select fllocname from docadmindocs union select fllocname from docadmin_docarchive" | sort -u)
files_without_row=0
temporaries=0
for f in "$store"/* "$store"/.~*; do
    [[ -e $f ]] || continue
    name=$(basename "$f")
    if [[ $name == .~* ]]; then
        temporaries=$((temporaries + 1))
        continue
    fi
    grep -qx "$name" <<<"$named" || files_without_row=$((files_without_row + 1))
done
# Temporaries of dead processes go at the next start of the store.
"$bin" ls >/dev/null
left=$(find "$store" -maxdepth 1 -name '.~*' | wc -l)
archived_twice=$(q "select count(*) from (select fllocname from docadmin_docarchive group by fllocname having count(*) > 1)")

printf 'races: %d runs; replaces done %d, refused as changed by another user %d, other errors %d, %d during a long import\n' \
    "$runs" "$replaced" "$refused" "$other_errors" "$during"
printf 'rows checked %d, rows without a file %d, files without a row %d, lost updates %d, archive rows naming one file twice %d\n' \
    "$rows_checked" "$rows_without_file" "$files_without_row" "$lost" "$archived_twice"
printf 'temporaries left by killed replaces: %d before the next start, %d after it\n' "$temporaries" "$left"
[[ $rows_without_file -eq 0 && $lost -eq 0 && $archived_twice -eq 0 && $left -eq 0 ]] || failures=$((failures + 1))
[[ $failures -eq 0 ]] || { echo "race: $failures failures" >&2; exit 1; }
