#!/usr/bin/env bash
# Listing of a record with 5,000 documents in 100 folders through QueryRecordResourceList (the
# listing loads the record's tree afresh at every call): time per call (median and best of 20
# calls on one keep-alive connection) and database statements per call, counted by the server.
# Beside it, the plain "docadmin ls --json" of the same tree in a process of its own.
# Usage: bench/docservice_list.sh [calls, default 20]
set -euo pipefail
source "$(dirname "$0")/docservice_lib.sh" docservice-list
calls=${1:-20}

record=$(new_record)
for d in $(seq -w 1 100); do
    mkdir -p "$work/src/folder$d"
    for f in $(seq -w 1 50); do printf 'document %s/%s\n' "$d" "$f" >"$work/src/folder$d/doc$f.txt"; done
done
seed_record "$record" "$work/src"

body="{\"StorageUID\":\"$storage\",\"SchemaName\":\"contacts\",\"RecordUID\":\"$record\"}"
call /services/IDocumentStore/QueryRecordResourceList "$body" >"$work/list.json"
docs=$(jq '[.. | objects | select(has("size"))] | length' "$work/list.json")
dirs=$(jq '[.. | objects | select(has("name") and (has("size") | not))] | length' "$work/list.json")
[[ $docs == 5000 ]] || { echo "listed $docs documents, not 5000" >&2; exit 1; }

# What a statistics call costs itself, to take off.
s0=$(statements)
s1=$(statements)
before=$(statements)
# One connection for all calls: curl reuses it for the repeated URL.
urls=()
for i in $(seq "$calls"); do
    ((i > 1)) && urls+=(--next)
    urls+=(-sf -o /dev/null -w '%{time_total}\n' -XPOST -H "Authorization: Bearer $token" -d "$body"
        "$url/services/IDocumentStore/QueryRecordResourceList")
done
times=$(curl "${urls[@]}")
after=$(statements)
a=$(now)
"$bin" ls --json --plugin "$storage" --path "\"contacts#Records\",\"$record\"" >/dev/null
b=$(now)

echo "load average at the end: $(cut -d" " -f1-3 /proc/loadavg)"
sort -n <<<"$times" | awk -v n="$calls" -v docs="$docs" -v dirs="$dirs" -v s=$((after - before - 2 * (s1 - s0))) \
    -v ls="$(echo "$b - $a" | bc -l)" -v bytes="$(wc -c <"$work/list.json")" '
    { t[NR] = $1 }
    END {
        printf "QueryRecordResourceList of a record with %d documents in %d folders (%d KiB of JSON)\n", docs, dirs, bytes / 1024
        printf "  per call: median %.1f ms, best %.1f ms, worst %.1f ms (%d calls)\n", t[int((n + 1) / 2)] * 1000, t[1] * 1000, t[n] * 1000, n
        printf "  database statements per call: %.1f (%d in %d calls)\n", s / n, s, n
        printf "  docadmin ls --json of the same tree, one process: %.1f ms\n", ls * 1000
    }'
