#!/usr/bin/env bash
# Crash safety of "docadmin import": imports 2,000 files into a new record, again and again, and
# kills the program with SIGKILL at a random moment of each run. After every kill each row of
# docadmindocs must name a file that the store delivers intact: no row without a remote name, and
# every document of the runs so far, exported through the store, equal to its source file. A run
# leaves whole batches of rows (an import commits 200 documents at a time) and at most the files of
# the batch it was storing without a row.
#   bench/crash_safety.sh [RUNS, default 20] [FILES, default 2000]
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-20}
files=${2:-2000}
cmake --preset release -B build/release >/dev/null
cmake --build build/release -j2 --target docadmin >/dev/null
bin=$PWD/build/release/apps/docadmin/docadmin
work=$(mktemp -d "${TMPDIR:-/tmp}/docadmin-crash.XXXXXX")
trap 'rm -rf "$work"' EXIT
export DOCADMIN_DATA=$work/data
unset DOCADMIN_CONFIG
db=$DOCADMIN_DATA/docadmin.db
uid() { printf '{%s}' "$(tr a-z A-Z </proc/sys/kernel/random/uuid)"; }
q() { sqlite3 "$db" "$1"; }

# 2,000 files of 4 KiB in 20 folders.
for d in $(seq -w 1 20); do
    mkdir -p "$work/src/crash/d$d"
    for f in $(seq -w 1 $((files / 20))); do head -c 4096 /dev/urandom >"$work/src/crash/d$d/f$f.bin"; done
done
"$bin" ls >/dev/null

# Two full runs tell how long an import takes (the faster one counts); kills fall anywhere in
# 0..1.1 times that, so that most runs die half way and a few around the commit.
records=()
full_ms=999999
for _ in 1 2; do
    records+=("\"crash#Records\",\"$(uid)\"")
    s=$(date +%s%N)
    "$bin" import "$work/src/crash" --path "${records[-1]}" >/dev/null
    ms=$((($(date +%s%N) - s) / 1000000))
    [[ $ms -lt $full_ms ]] && full_ms=$ms
done

killed=0
complete=0
checked=0
for run in $(seq 1 "$runs"); do
    before=$(q "select count(*) from docadmindocs")
    rec="\"crash#Records\",\"$(uid)\""
    "$bin" import "$work/src/crash" --path "$rec" >/dev/null 2>&1 &
    pid=$!
    delay_ms=$((RANDOM * full_ms * 11 / 10 / 32768))
    sleep "$(printf '%d.%03d' $((delay_ms / 1000)) $((delay_ms % 1000)))"
    if kill -KILL "$pid" 2>/dev/null; then killed=$((killed + 1)); else complete=$((complete + 1)); fi
    wait "$pid" 2>/dev/null || true

    # No row without its remote name; a run adds whole batches of documents.
    empty=$(q "select count(*) from docadmindocs where fllocname is null or fllocname = ''")
    [[ $empty -eq 0 ]] || { echo "run $run: $empty rows without a file" >&2; exit 1; }
    after=$(q "select count(*) from docadmindocs")
    added=$((after - before))
    [[ $((added % 200)) -eq 0 || $added -eq $files ]] ||
        { echo "run $run: $added rows of $files after the kill: not whole batches" >&2; exit 1; }

    # Every row of the table, fetched through the store, equals its source file: each record
    # that holds documents is exported and compared with the source folder.
    [[ $added -eq 0 ]] || records+=("$rec")
    delivered=0
    for i in "${!records[@]}"; do
        rm -rf "$work/out"
        "$bin" export "$work/out" --path "${records[$i]}" >/dev/null
        delivered=$((delivered + $(find "$work/out" -type f | wc -l)))
        # A record of a killed run holds whole batches: each of its files equals its source.
        (cd "$work/out/crash" && find . -type f -print0) |
            xargs -0 -I{} cmp -s "$work/src/crash/{}" "$work/out/crash/{}" ||
            { echo "run $run: record ${records[$i]} differs from the source" >&2; exit 1; }
    done
    [[ $delivered -eq $after ]] ||
        { echo "run $run: $after rows, $delivered files delivered" >&2; exit 1; }
    checked=$((checked + after))
    printf 'run %2d: kill after %4d ms, %4d rows added, %6d rows checked\n' "$run" "$delay_ms" \
        "$added" "$after"
done
printf 'crash safety: %d runs (%d killed while running, %d finished first), %d row checks, 0 failures\n' \
    "$runs" "$killed" "$complete" "$checked"
printf 'one full import of %d files: %d ms\n' "$files" "$full_ms"
