#!/usr/bin/env bash
# docadmin plugins end to end: the listing of loaded and failed plug-ins, its exit code, and where
# the plug-in folder comes from ([host] plugin_dir before DOCADMIN_PLUGIN_DIR). Then serve with a
# plug-in that runs a job thread: SIGTERM still stops it cleanly.
#   plugins_verb_test.sh path/to/docadmin folder-of-the-test-plug-ins
set -uo pipefail
bin=$(realpath "$1")
built=$(realpath "$2")
work=$(mktemp -d /tmp/docadmin-plugins.XXXXXX)
trap 'rm -rf "$work"' EXIT
export DOCADMIN_DATA=$work/data
unset DOCADMIN_CONFIG
mkdir -p "$work/plugins" "$work/empty"
export DOCADMIN_PLUGIN_DIR=$work/plugins

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
run() {
    out=$("$@" 2>"$work/stderr")
    rc=$?
    err=$(cat "$work/stderr")
}

ln -s "$built/libplugtest_a.so" "$built/libplugtest_b.so" "$work/plugins/"
run "$bin" plugins
[[ $rc -eq 0 ]] || fail "two good plug-ins: exit $rc: $err"
[[ $(wc -l <<<"$out") -eq 2 ]] || fail "two lines wanted: $out"
[[ $out == *"{A1A1A1A1-0000-4000-8000-00000000000A}  PlugTestA "*"/libplugtest_a.so  loaded"* ]] ||
    fail "plug-in A: $out"
[[ $out == *"{B2B2B2B2-0000-4000-8000-00000000000B}  libplugtest_b.so "*"  loaded"* ]] ||
    fail "plug-in B: $out"

ln -s "$built/libplugtest_noinit.so" "$work/plugins/"
run "$bin" plugins
[[ $rc -eq 1 ]] || fail "a failed plug-in: exit $rc"
[[ $out == *"libplugtest_noinit.so  failed: has no entry point: it exports no InitProc"* ]] ||
    fail "the failure in the listing: $out"
[[ $err == *"plug-in libplugtest_noinit.so ($work/plugins/libplugtest_noinit.so) not loaded"* ]] ||
    fail "the failure in the log: $err"

printf '[host]\nplugin_dir = "%s"\n' "$work/empty" >"$work/docadmin.toml"
run "$bin" plugins --config "$work/docadmin.toml"
[[ $rc -eq 0 && $out == "no plug-ins" ]] || fail "the configured folder: exit $rc: $out"

printf '[host]\nlanguage = "nl"\n' >"$work/bad.toml"
run "$bin" plugins --config "$work/bad.toml"
[[ $rc -eq 1 && $err == *'host.language must be "de", "en", "fr" or "it", not "nl"'* ]] ||
    fail "a bad language: exit $rc: $err"

rm "$work/plugins/libplugtest_noinit.so"
"$bin" serve --listen 127.0.0.1:0 >"$work/serve.out" 2>"$work/serve.err" &
pid=$!
for _ in $(seq 100); do
    grep -q "listening on" "$work/serve.err" && break
    sleep 0.1
done
kill -TERM $pid
wait $pid
rc=$?
err=$(cat "$work/serve.err")
[[ $rc -eq 0 && $err == *"PlugTestA"*"listening on"*"docadmin serve: stopped"* ]] ||
    fail "serve with plug-ins and SIGTERM: exit $rc: $err"

[[ $failures -eq 0 ]] || exit 1
echo "plugins verb: all checks passed"
