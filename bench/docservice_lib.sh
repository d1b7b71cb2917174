# Shared by the documents service benches, sourced after `set -euo pipefail`:
#   source bench/docservice_lib.sh NAME
# Builds the release program (BENCH_BUILD_DIR picks another folder than build/release), makes a
# private data folder with a user "bench" and starts serve on a free loopback port, its temporary
# files in a folder of their own. Gives: $bin, $work, $url, $spid, $token (a session of "bench"),
# $storage (the contacts storage), new_record, seed_record, call, mem_kib and cleanup on exit.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BENCH_BUILD_DIR:-$root/build/release}
if [[ -z ${BENCH_NO_BUILD:-} ]]; then
    cmake --preset release -S "$root" -B "$build" >/dev/null
    cmake --build "$build" -j2 --target docadmin docadmin_plugin >/dev/null
fi
bin=$build/apps/docadmin/docadmin
work=$(mktemp -d "${TMPDIR:-/tmp}/docadmin-$1.XXXXXX")
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
ulimit -n 20000 2>/dev/null || true

port=$((20000 + RANDOM % 20000))
url=http://127.0.0.1:$port
storage='{A48847CA-33D3-4EB0-A586-E316EA2E5322}'
export DOCADMIN_DATA=$work/data
export DOCADMIN_CONFIG=$work/docadmin.toml
cat >"$DOCADMIN_CONFIG" <<TOML
data_dir = "$work/data"
[server]
listen = "127.0.0.1:$port"
access_log = ""
max_connections = 20000
TOML
echo 'bench-password-1' >"$work/pw"
"$bin" user add bench --password-stdin <"$work/pw" >/dev/null
mkdir -p "$work/servetmp"
TMPDIR=$work/servetmp "$bin" serve 2>"$work/serve.err" &
spid=$!
pids+=("$spid")
for _ in $(seq 200); do curl -sf "$url/health" >/dev/null && break; sleep 0.1; done
login() {
    curl -sf -XPOST "$url/login" -d '{"user":"bench","password":"bench-password-1","session_type":1}' |
        jq -r .session
}
token=$(login)
if ! curl -sf "$url/openapi.json" | grep -q IDocumentStore; then
    echo "$1: the server publishes no documents service" >&2
    exit 1
fi

# call PATH JSON: a POST in the bench's session; the answer on stdout.
call() { curl -sf -XPOST -H "Authorization: Bearer $token" "$url$1" -d "$2"; }
# new_record: a contacts row; its UID on stdout.
new_record() {
    call /records/contacts '{"name":"Bench"}' | jq -r '.record_info[0].server_uid'
}
# seed_record UID DIR: DIR's files into the record's tree (locally, beside the running server),
# before the server has loaded that record. The import acts as the bench user, so its rows are in
# that user's default group and the server shows them to the user like its own.
seed_record() {
    "$bin" import "$2" --as bench --plugin "$storage" --path "\"contacts#Records\",\"$1\"" >/dev/null
}
# mem_kib FIELD: VmRSS or VmHWM of serve in KiB.
mem_kib() { awk -v f="$1:" '$1 == f {print $2}' "/proc/$spid/status"; }
statements() { call /host/IHostInfo/Statistics '{}' | jq .Statements; }
now() { date +%s.%N; }
