#!/usr/bin/env bash
# Download of one large document through DownloadRecordDocument in chunks, against nginx serving
# the same file raw, in one run:
#   - docadmin: "docadmin remote get" pages through the document in 4 MiB chunks (Base64 in JSON,
#     decoded and written by the client); decoded bytes/s, best of three, from the client's own
#     timing of the chunks (first request to last byte written) and for the whole command;
#   - the first chunk's latency on its own (the server copies the document out of its store
#     before the first answer), median of three fresh sessions;
#   - nginx: the same file by curl, best of three;
#   - the server's peak memory during the downloads (VmHWM), against 64 MiB + three chunks;
#   - the CPU time that server and client spend per MiB, which a loaded machine doesn't distort
#     the way it distorts wall times.
# Usage: bench/docservice_download.sh [MiB, default 256] [chunk MiB, default 4]
set -euo pipefail
source "$(dirname "$0")/docservice_lib.sh" docservice-download
source "$(dirname "$0")/nginx_lib.sh"
mib=${1:-256}
chunk=$((${2:-4} << 20))

record=$(new_record)
mkdir -p "$work/src"
head -c $((mib << 20)) /dev/urandom >"$work/src/big.bin"
seed_record "$record" "$work/src"
id=$(call /services/IDocumentStore/QueryRecordResourceList \
    "{\"StorageUID\":\"$storage\",\"SchemaName\":\"contacts\",\"RecordUID\":\"$record\"}" |
    jq '[.. | objects | select(.name? == "big.bin")][0].server_dbid')

mkdir -p "$work/nginx/www" "$work/got"
ln "$work/src/big.bin" "$work/nginx/www/big.bin"
# nginx's workers run as another user: they need to reach the file.
chmod a+rx "$work" "$work/nginx" "$work/nginx/www" && chmod a+r "$work/src/big.bin"
nport=$((port + 1))
start_nginx "$nport"

best() { awk -v a="$1" -v b="$2" 'BEGIN { print (a < b) ? a : b }'; }
mem_before=$(mem_kib VmRSS)
cpu_ticks() { awk '{print $14 + $15}' "/proc/$spid/stat"; }
server_cpu=0
client_cpu=0
t_doc=999999
t_transfer=999999
t_nginx=999999
first=()
for run in 1 2 3; do
    # The first chunk in a fresh session: the server fetches the document before answering.
    s=$(login)
    first+=("$(curl -sf -o /dev/null -w '%{time_total}' -XPOST -H "Authorization: Bearer $s" \
        "$url/services/IDocumentStore/DownloadRecordDocument" \
        -d "{\"StorageUID\":\"$storage\",\"SchemaName\":\"contacts\",\"RecordUID\":\"$record\",
             \"ServerDBID\":$id,\"Chunk\":{\"position\":0,\"size\":$chunk}}")")
    curl -sf -o /dev/null -XPOST -H "Authorization: Bearer $s" "$url/logout"
    rm -f "$work/got/big.bin"
    c0=$(cpu_ticks)
    a=$(now)
    /usr/bin/time -f '%U %S' -o "$work/client.cpu" "$bin" remote --url "$url" --user bench \
        --password-file "$work/pw" get --schema contacts --record "$record" --id "$id" \
        --chunk-size "$chunk" -o "$work/got/" >"$work/get.out"
    b=$(now)
    # The client's own figure: first chunk request to last byte written.
    t_transfer=$(best "$t_transfer" "$(sed -n 's/.* in \([0-9.]*\) s, .*/\1/p' "$work/get.out")")
    server_cpu=$((server_cpu + $(cpu_ticks) - c0))
    client_cpu=$(awk -v t="$client_cpu" '{print t + $1 + $2}' "$work/client.cpu")
    t_doc=$(best "$t_doc" "$(echo "$b - $a" | bc -l)")
    cmp -s "$work/src/big.bin" "$work/got/big.bin" || { echo "download differs" >&2; exit 1; }
    a=$(now)
    curl -sf -o /dev/null "http://127.0.0.1:$nport/big.bin"
    b=$(now)
    t_nginx=$(best "$t_nginx" "$(echo "$b - $a" | bc -l)")
done
peak=$(mem_kib VmHWM)
first_median=$(printf '%s\n' "${first[@]}" | sort -n | sed -n 2p)
leftover=$(find "$work/servetmp" -type f | wc -l)

echo "load average at the end: $(cut -d" " -f1-3 /proc/loadavg)"
awk -v mib="$mib" -v c="$chunk" -v td="$t_doc" -v tt="$t_transfer" -v tn="$t_nginx" -v f="$first_median" \
    -v before="$mem_before" -v peak="$peak" -v left="$leftover" -v scpu="$server_cpu" \
    -v ccpu="$client_cpu" -v hz="$(getconf CLK_TCK)" 'BEGIN {
    bytes = mib * 1048576
    printf "download of %d MiB in chunks of %d MiB (best of 3)\n", mib, c / 1048576
    printf "  chunks through DownloadRecordDocument, decoded and written (first request to last byte)\n"
    printf "                       %7.3f s  %8.1f MiB/s\n", tt, bytes / tt / 1048576
    printf "  the whole docadmin remote get (start, login, listing, transfer, fsync, rename)\n"
    printf "                       %7.3f s  %8.1f MiB/s\n", td, bytes / td / 1048576
    printf "  nginx (curl, raw)    %7.3f s  %8.1f MiB/s\n", tn, bytes / tn / 1048576
    printf "  ratio %.2fx nginx for the chunks (target >= 0.3), %.2fx for the whole command\n", tn / tt, tn / td
    printf "  CPU per MiB over 3 downloads: server %.1f ms, client %.1f ms\n", scpu / hz * 1000 / (3 * mib), ccpu * 1000 / (3 * mib)
    printf "  first chunk latency  %7.3f s (median of 3 fresh sessions)\n", f
    printf "  server memory: %.1f MiB before, peak %.1f MiB (target < %.0f MiB = 64 MiB + 3 chunks)\n", before / 1024, peak / 1024, 64 + 3 * c / 1048576
    printf "  temporary files left in the server'"'"'s folder: %d\n", left
}'
