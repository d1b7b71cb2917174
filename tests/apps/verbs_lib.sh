# Shared by the end-to-end tests of the docadmin verbs, sourced with a name and the program:
#   source verbs_lib.sh NAME path/to/docadmin
# Gives a private data folder as the working folder, fail, expect, refuses, finish,
# use_postgresql and start_serve; on exit the started processes end and the folder goes.
bin=$(realpath "$2")
work=$(mktemp -d "/tmp/$1.XXXXXX")
pids=()
on_exit=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
    wait 2>/dev/null
    for c in "${on_exit[@]}"; do eval "$c"; done
    rm -rf "$work"
}
trap cleanup EXIT
export DOCADMIN_DATA=$work/data
unset DOCADMIN_CONFIG
cd "$work" || exit 1

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
# [input=TEXT] expect CODE CMD...: runs the command with TEXT (default none) on standard input,
# keeps its stdout in $out and stderr in $err, and fails unless it exits with CODE.
expect() {
    local want=$1
    shift
    out=$(printf '%s' "${input-}" | "$@" 2>"$work/stderr")
    local rc=$?
    err=$(cat "$work/stderr")
    [[ $rc -eq $want ]] || fail "exit $rc (wanted $want): $* :: $err"
}
# [input=TEXT] refuses PATTERN CMD...: expect 1, with the standard error matching the glob PATTERN.
refuses() {
    local pattern=$1
    shift
    expect 1 "$@"
    [[ $err == $pattern ]] || fail "$*: wanted an error like $pattern :: $err"
}
# finish MESSAGE: the exit status of the test.
finish() {
    if ((failures)); then
        echo "$failures check(s) failed" >&2
        exit 1
    fi
    echo "$1"
}

# use_postgresql PREFIX TOML: the database becomes a fresh schema PREFIX_... in the test server
# named by DOCADMIN_PG_CONNINFO_FILE, configured by appending to TOML and dropped on exit; sets
# $conninfo and $schema. Without a server the test is skipped (exit 77), under CI=true it fails.
use_postgresql() {
    local file=${DOCADMIN_PG_CONNINFO_FILE:-}
    if [[ -z $file || ! -s $file ]]; then
        echo "no PostgreSQL test server" >&2
        [[ ${CI:-} == true ]] && exit 1
        exit 77
    fi
    conninfo=$(cat "$file")
    schema="$1_$$_$RANDOM"
    psql "$conninfo" -qc "create schema $schema" || exit 1
    on_exit+=('psql "$conninfo" -qc "drop schema $schema cascade" >/dev/null 2>&1')
    mkdir -p "$(dirname "$2")"
    printf '[databases.main]\nbackend = "postgresql"\nconninfo = "%s options=%s"\n' \
        "$conninfo" "'-csearch_path=$schema'" >>"$2"
}
# serve_config: a configuration $work/docadmin.toml (the data folder, a free loopback port, no
# access log) in DOCADMIN_CONFIG; sets $port and $url.
serve_config() {
    port=$((20000 + RANDOM % 20000))
    url=http://127.0.0.1:$port
    printf 'data_dir = "%s"\n[server]\nlisten = "127.0.0.1:%s"\naccess_log = ""\n' \
        "$DOCADMIN_DATA" "$port" >"$work/docadmin.toml"
    export DOCADMIN_CONFIG=$work/docadmin.toml
}
# start_serve: serve in the background (log in serve.log), once it answers /health.
start_serve() {
    "$bin" serve >serve.log 2>&1 &
    pids+=($!)
    for _ in $(seq 200); do curl -sf "$url/health" >/dev/null && break; sleep 0.1; done
}
