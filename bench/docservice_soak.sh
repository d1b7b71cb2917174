#!/usr/bin/env bash
# A soak of the documents service: 32 sessions for 5 minutes on 8 records of 20 documents each
# (16 KiB to 2 MiB), mixing listings, chunked downloads checked byte for byte and imports through
# the record service's "record_documents" detail (docservice_soak.py). Afterwards: no failed
# request, every imported document present and intact, no temporary file of the server left once
# the sessions have ended, and the server's memory at the end (the sessions ended, the server's
# periodic heap tidy done) within 10% of its memory after the first minute; the figure under load
# just before the end and the heap in use at all three points are printed beside it.
# Usage: bench/docservice_soak.sh [--duration SECONDS] [--sessions N] [--no-imports]
set -euo pipefail
duration=300
sessions=32
imports=1
while (($#)); do
    case $1 in
        --duration) duration=$2; shift 2 ;;
        --sessions) sessions=$2; shift 2 ;;
        --no-imports) imports=0; shift ;;
        *) echo "usage: $0 [--duration SECONDS] [--sessions N] [--no-imports]" >&2; exit 2 ;;
    esac
done
here=$(cd "$(dirname "$0")" && pwd)
source "$here/docservice_lib.sh" docservice-soak

echo '{' >"$work/seeds.json"
for r in $(seq 8); do
    record=$(new_record)
    mkdir -p "$work/src$r/a" "$work/src$r/b"
    for f in $(seq -w 1 20); do
        sub=$([[ $((10#$f % 2)) == 0 ]] && echo a || echo b)
        head -c $(((RANDOM % 128 + 1) * 16384)) /dev/urandom >"$work/src$r/$sub/doc$r-$f.bin"
    done
    seed_record "$record" "$work/src$r"
    (cd "$work/src$r" && sha256sum */*.bin) |
        awk -v rec="$record" -v last="$([[ $r == 8 ]] && echo 1)" '
            BEGIN { printf "\"%s\": {", rec }
            { n = split($2, p, "/"); printf "%s\"%s\": \"%s\"", (NR > 1 ? ", " : ""), p[n], $1 }
            END { printf "}%s\n", (last ? "" : ",") }' >>"$work/seeds.json"
done
echo '}' >>"$work/seeds.json"

status=0
python3 "$here/docservice_soak.py" "$url" "$spid" "$work/seeds.json" "$duration" "$sessions" \
    "$imports" || status=1
# The sessions logged out; their ends run on the server's workers right after.
sleep 2
left=$(find "$work/servetmp" -type f | wc -l)
echo "  temporary files of the server left after the sessions ended: $left (target 0)"
echo "load average at the end: $(cut -d" " -f1-3 /proc/loadavg)"
((left == 0)) || status=1
exit $status
