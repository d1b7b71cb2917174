#!/usr/bin/env bash
# The server against nginx on loopback, in one run (wrk):
#   1. an authenticated minimal API call (POST /host/IHostInfo/Ping) at 64 connections, beside
#      nginx serving a static file of the same size; requests/s and p99 side by side;
#   2. the record service's read of one row by UID at 64 connections;
#   3. 5,000 idle keep-alive connections held open while the minimal call still answers, with the
#      server's peak memory.
# Usage: bench/serve.sh [build folder]   (default build/release; build it first)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/release}
bin=$build/apps/docadmin/docadmin
[[ -x $bin ]] || { echo "serve.sh: $bin missing (cmake --preset release && cmake --build --preset release --target docadmin)" >&2; exit 1; }
duration=${DURATION:-10s}
work=$(mktemp -d)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT
source "$(dirname "$0")/nginx_lib.sh"
ulimit -n 20000 2>/dev/null || true

port=$((20000 + RANDOM % 20000)); nport=$((port + 1))
export DOCADMIN_DATA=$work/data
cat > "$work/docadmin.toml" <<TOML
data_dir = "$work/data"
[server]
listen = "127.0.0.1:$port"
access_log = ""
max_connections = 20000
idle_timeout_ms = 600000
TOML
echo 'bench-password-1' | "$bin" user add bench --password-stdin --config "$work/docadmin.toml" >/dev/null
"$bin" serve --config "$work/docadmin.toml" 2>"$work/serve.err" &
spid=$!; pids+=("$spid")
for _ in $(seq 100); do curl -sf "http://127.0.0.1:$port/health" >/dev/null && break; sleep 0.1; done

token=$(curl -sf -XPOST "http://127.0.0.1:$port/login" \
    -d '{"user":"bench","password":"bench-password-1","session_type":1}' | jq -r .session)
auth="Authorization: Bearer $token"
ping_body=$(curl -sf -XPOST -H "$auth" "http://127.0.0.1:$port/host/IHostInfo/Ping" -d '{"Text":"x"}')
uid=$(curl -sf -XPOST -H "$auth" "http://127.0.0.1:$port/records/contacts" \
    -d '{"name":"Bench","company":"ACME","email":"bench@example.org"}' | jq -r '.record_info[0].server_uid')

# nginx with a static file as big as the ping's answer.
start_nginx "$nport"
printf '%s' "$ping_body" > "$work/nginx/www/ping.json"

cat > "$work/post.lua" <<'LUA'
wrk.method = "POST"
wrk.body = '{"Text":"x"}'
wrk.headers["Content-Type"] = "application/json"
LUA
# "requests/s p99" from wrk's output.
measure() {
    local out
    out=$(wrk --latency -t2 -c64 -d"$duration" "$@")
    local rps p99
    rps=$(awk '/Requests\/sec/ {print $2}' <<<"$out")
    p99=$(awk '$1 == "99%" {print $2}' <<<"$out")
    echo "$rps $p99"
}

read -r s_rps s_p99 < <(measure -s "$work/post.lua" -H "$auth" "http://127.0.0.1:$port/host/IHostInfo/Ping")
read -r n_rps n_p99 < <(measure "http://127.0.0.1:$nport/ping.json")
read -r r_rps r_p99 < <(measure -H "$auth" "http://127.0.0.1:$port/records/contacts/$uid")

# 5,000 idle keep-alive connections, then the minimal call.
python3 - "$port" "$token" "$spid" <<'PY'
import socket, sys, time
port, token, pid = int(sys.argv[1]), sys.argv[2], sys.argv[3]
idle = []
for _ in range(5000):
    s = socket.create_connection(("127.0.0.1", port))
    s.sendall(b"GET /health HTTP/1.1\r\nHost: b\r\n\r\n")
    s.recv(4096)
    idle.append(s)
body = b'{"Text":"x"}'
req = (b"POST /host/IHostInfo/Ping HTTP/1.1\r\nHost: b\r\nAuthorization: Bearer " + token.encode()
       + b"\r\nContent-Length: " + str(len(body)).encode() + b"\r\n\r\n" + body)
times = []
for _ in range(50):
    t = time.perf_counter(); c = socket.create_connection(("127.0.0.1", port)); c.sendall(req)
    c.recv(4096); times.append((time.perf_counter() - t) * 1000); c.close()
times.sort()
rss = [l for l in open(f"/proc/{pid}/status") if l.startswith("VmHWM")][0].split()[1]
open_now = sum(1 for s in idle if s.fileno() >= 0)
print(f"idle    {open_now} keep-alive connections open; ping median {times[25]:.2f} ms, "
      f"max {times[-1]:.2f} ms (target < 50 ms); server peak memory {int(rss)/1024:.1f} MiB "
      f"(target < 256 MiB)")
PY

echo "ping    docadmin ${s_rps} req/s p99 ${s_p99}   nginx ${n_rps} req/s p99 ${n_p99}   ratio $(echo "scale=2; $s_rps / $n_rps" | bc) (target >= 0.5)"
echo "record  GET /records/contacts/<uid>: ${r_rps} req/s p99 ${r_p99}"
