#!/usr/bin/env bash
# Speed of the tree verbs on the default configuration (SQLite, local store), in one run:
#  1. "docadmin import" of 2,000 files of 4 KiB into one record (the import runs in one
#     transaction) against "cp -r" of the same files on the same disk; target: import at no less
#     than 0.25x the speed of cp -r.
#  2. "docadmin ls --json" of a record with 5,000 documents in 100 folders: wall time and the
#     number of database queries, next to "ls -lR" of the same files and one sqlite3 query that
#     reads the same rows.
# Times are the best of three runs and include the start of the program.
#   bench/tree_speed.sh [FILES, default 2000]
set -euo pipefail
cd "$(dirname "$0")/.."
files=${1:-2000}
# BENCH_BUILD_DIR picks another build folder than build/release.
build=${BENCH_BUILD_DIR:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" -j2 --target docadmin >/dev/null
bin=$PWD/$build/apps/docadmin/docadmin
work=$(mktemp -d "${TMPDIR:-/tmp}/docadmin-treespeed.XXXXXX")
trap 'rm -rf "$work"' EXIT
export DOCADMIN_DATA=$work/data
unset DOCADMIN_CONFIG
uid() { printf '{%s}' "$(tr a-z A-Z </proc/sys/kernel/random/uuid)"; }
now() { date +%s.%N; }
min() { awk -v a="$1" -v b="$2" 'BEGIN { print (a < b) ? a : b }'; }

# ---- 1. import against cp -r
mkdir -p "$work/src/files"
for i in $(seq -w 1 "$files"); do head -c 4096 /dev/urandom >"$work/src/files/f$i.bin"; done
"$bin" ls >/dev/null  # creates the database and the store before anything is timed
sync
t_cp=999
t_imp=999
# The copies stay until the script ends: on ext4, files deleted in the last half minute make the
# allocation of new inodes in their group slow, for cp and the import alike, and that swamped
# both timings.
for run in 1 2 3; do
    s=$(now)
    cp -r "$work/src/files" "$work/cp$run"
    e=$(now)
    t_cp=$(min "$t_cp" "$(echo "$e - $s" | bc -l)")
    s=$(now)
    "$bin" import "$work/src/files" --path "\"speed#Records\",\"$(uid)\"" >/dev/null
    e=$(now)
    t_imp=$(min "$t_imp" "$(echo "$e - $s" | bc -l)")
done

# ---- 2. listing a record of 5,000 documents in 100 folders
for d in $(seq -w 1 100); do
    mkdir -p "$work/src/list/folder$d"
    for f in $(seq -w 1 50); do printf 'document %s/%s\n' "$d" "$f" >"$work/src/list/folder$d/doc$f.txt"; done
done
rec="\"list#Records\",\"$(uid)\""
"$bin" import "$work/src/list" --path "$rec" >/dev/null
t_ls=999
t_lsR=999
t_sql=999
db=$DOCADMIN_DATA/docadmin.db
sql="select d.id, d.title, f.id, f.docname, f.flsize, f.flversion, f.fldate, f.fllocname
     from docadmindir d join docadmindocs f on f.dirid = d.id order by d.id, f.docname"
for run in 1 2 3; do
    s=$(now)
    "$bin" ls --json --path "$rec" --count-queries >"$work/ls.json" 2>"$work/ls.err"
    e=$(now)
    t_ls=$(min "$t_ls" "$(echo "$e - $s" | bc -l)")
    s=$(now)
    ls -lR "$work/src/list" >/dev/null
    e=$(now)
    t_lsR=$(min "$t_lsR" "$(echo "$e - $s" | bc -l)")
    s=$(now)
    sqlite3 "$db" "$sql" >/dev/null
    e=$(now)
    t_sql=$(min "$t_sql" "$(echo "$e - $s" | bc -l)")
done
listed=$(jq '.documents' "$work/ls.json")
folders=$(jq '.folders' "$work/ls.json")
queries=$(sed -n 's/^queries: //p' "$work/ls.err")

echo "load average at the end: $(cut -d" " -f1-3 /proc/loadavg)"
awk -v n="$files" -v tc="$t_cp" -v ti="$t_imp" -v tl="$t_ls" -v tr="$t_lsR" -v ts="$t_sql" \
    -v docs="$listed" -v dirs="$folders" -v q="$queries" 'BEGIN {
    printf "import %d files of 4 KiB into one record (one transaction)\n", n
    printf "  cp -r              %7.3f s  %8.0f files/s\n", tc, n / tc
    printf "  docadmin import    %7.3f s  %8.0f files/s\n", ti, n / ti
    printf "  ratio import/cp -r speed  %.2fx (target >= 0.25)\n", tc / ti
    printf "ls --json of a record: %d documents in %d folders\n", docs, dirs
    printf "  docadmin ls --json %7.3f s  %d queries (%d folders + levels and root look-ups)\n", tl, q, dirs
    printf "  ls -lR of the files %6.3f s\n", tr
    printf "  sqlite3, one join   %6.3f s\n", ts
    printf "  ratio ls --json / ls -lR  %.2fx, / sqlite3  %.2fx\n", tl / tr, tl / ts
}'
