#!/usr/bin/env bash
# docadmin remote end to end against a started serve on a fresh SQLite database: a user, a
# contacts record, put, ls, get (bytes compared, small chunks, a lost answer resumed through a
# proxy), and the refusals (wrong password, unknown document, existing target, missing folder).
#   tests/apps/remote_verbs_test.sh path/to/docadmin
# Exits 77 (skipped) when the server publishes no documents service.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/verbs_lib.sh" docadmin-remote "$1"
serve_config
echo 'alice-password-1' >pw
input=$'alice-password-1\n' expect 0 "$bin" user add alice --password-stdin
start_serve
if ! curl -sf "$url/openapi.json" | grep -q IDocumentStore; then
    echo "SKIP: the server publishes no documents service"
    exit 77
fi
token=$(curl -sf -XPOST "$url/login" -d '{"user":"alice","password":"alice-password-1"}' |
    jq -r .session)
record=$(curl -sf -XPOST -H "Authorization: Bearer $token" "$url/records/contacts" \
    -d '{"name":"Remote"}' | jq -r '.record_info[0].server_uid')
[[ $record == "{"*"}" ]] || fail "no record: $record"
r=(remote --url "$url" --user alice --password-file pw)
rec=(--schema contacts --record "$record")

# Files: one of whole chunks of 64 KiB, one of odd size with every byte value, an empty one.
mkdir up got
head -c $((4 * 65536)) /dev/urandom >up/whole.bin
python3 -c 'import sys; sys.stdout.buffer.write(bytes(range(256)) * 1000 + b"\0tail")' >up/odd.bin
: >up/empty.txt

# Wrong password: no session, exit 1, a clear message.
echo 'not-the-password' >bad
refuses '*Wrong user name or password*' "$bin" remote --url "$url" --user alice --password-file bad \
    ls "${rec[@]}"
DOCADMIN_PASSWORD=alice-password-1 expect 0 "$bin" remote --url "$url" --user alice ls "${rec[@]}"
[[ $out == "(no documents)" ]] || fail "empty record: $out"

# put; a folder the record doesn't have is refused before anything is sent.
refuses '*no folder "Nowhere"*' "$bin" "${r[@]}" put up/odd.bin "${rec[@]}" --path Nowhere
expect 0 "$bin" "${r[@]}" put up/whole.bin up/odd.bin up/empty.txt "${rec[@]}"
[[ $(grep -c '^uploaded .* as id [0-9]* {' <<<"$out") == 3 ]] || fail "put: $out :: $err"

expect 0 "$bin" "${r[@]}" ls "${rec[@]}"
for f in whole.bin odd.bin empty.txt; do
    grep -q "$f" <<<"$out" || fail "ls lacks $f: $out"
done
grep -q "^NAME *SIZE *VERSION *MODIFIED *CREATED *ID$" <<<"$out" || fail "ls header: $out"
expect 0 "$bin" "${r[@]}" ls "${rec[@]}" --json
listing=$out
doc_field() { jq -r "[.. | objects | select(.name? == \"$1\" and has(\"size\"))][0].$2" <<<"$listing"; }
id_of() { doc_field "$1" server_dbid; }
uid_of() { doc_field "$1" server_uid; }
odd_id=$(id_of odd.bin)
odd_uid=$(uid_of odd.bin)
# Every document as FOLDER/.../NAME.
doc_paths=$(jq -r 'def docs(p): (.directories[]? | docs(p + .name + "/")), (.documents[]? | p + .name);
    docs("")' <<<"$listing")
path_of() { grep -m1 "\(^\|/\)$1\$" <<<"$doc_paths"; }

# get by id into a folder, by path with small chunks into a file, by UID; bytes compared.
expect 0 "$bin" "${r[@]}" get "${rec[@]}" --id "$odd_id" -o got/
cmp -s up/odd.bin got/odd.bin || fail "get by id: $out $err"
expect 0 "$bin" "${r[@]}" get "${rec[@]}" --path "$(path_of whole.bin)" --chunk-size 4K \
    -o got/w.bin
cmp -s up/whole.bin got/w.bin || fail "get with 4 KiB chunks: $out $err"
expect 0 "$bin" "${r[@]}" get --uid "$odd_uid" --chunk-size 1000 -o got/by-uid.bin
cmp -s up/odd.bin got/by-uid.bin || fail "get by UID: $out $err"
expect 0 "$bin" "${r[@]}" get "${rec[@]}" --path "$(path_of empty.txt)" -o got/
[[ -f got/empty.txt && ! -s got/empty.txt ]] || fail "empty document: $err"

# An existing target stays without --force; an unknown document is refused.
echo keep >got/keep.bin
expect 1 "$bin" "${r[@]}" get "${rec[@]}" --id "$odd_id" -o got/keep.bin
[[ $(cat got/keep.bin) == keep && $err == *exists* ]] || fail "overwrote without --force: $err"
expect 0 "$bin" "${r[@]}" get "${rec[@]}" --id "$odd_id" -o got/keep.bin --force
cmp -s up/odd.bin got/keep.bin || fail "--force"
refuses '*No document with id 999999*' "$bin" "${r[@]}" get "${rec[@]}" --id 999999 -o got/
refuses '*not found or permission denied*404*' \
    "$bin" "${r[@]}" get --uid '{00000000-0000-0000-0000-000000000001}' -o got/

# Through a proxy that loses the answers of the 3rd and 4th chunk after the server read them:
# the client asks again from the last good position and the bytes match.
python3 "$here/remote_proxy.py" "$port" proxy.port 3 4 &
pids+=($!)
for _ in $(seq 50); do [[ -s proxy.port ]] && break; sleep 0.1; done
expect 0 "$bin" remote --url "http://127.0.0.1:$(cat proxy.port)" --user alice --password-file pw \
    get "${rec[@]}" --id "$(id_of whole.bin)" --chunk-size 32K -o got/resumed.bin
cmp -s up/whole.bin got/resumed.bin || fail "resumed download differs: $err"
[[ $out == *"chunk(s) asked again"* ]] || fail "no retry reported: $out"
# No temporary file is left beside the targets, also after the refusals.
[[ -z $(find got -name '.docadmin-get-*') ]] || fail "temporary files left: $(ls -a got)"

finish "remote verbs: all checks passed"
