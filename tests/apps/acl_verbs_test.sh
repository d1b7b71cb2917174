#!/usr/bin/env bash
# Who the tree verbs write as, beside a started serve: what the local administrator or an --as
# user imports is listed by the documents service to the users of its group only, with one folder
# chain per record; refused users write nothing; repair-acl moves exactly the rows without a group.
# SQLite, or "postgresql" on a schema of its own in the server of DOCADMIN_PG_CONNINFO_FILE.
#   tests/apps/acl_verbs_test.sh path/to/docadmin [sqlite|postgresql]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/verbs_lib.sh" docadmin-acl "$1"
backend=${2:-sqlite}
serve_config
if [[ $backend == postgresql ]]; then
    use_postgresql acl "$DOCADMIN_CONFIG"
    sql() { psql "$conninfo options=-csearch_path=$schema" -qtAc "$1"; }
else
    sql() { sqlite3 "$DOCADMIN_DATA/docadmin.db" "$1"; }
fi
storage='{A48847CA-33D3-4EB0-A586-E316EA2E5322}' # the contacts records' documents

# Groups and users: alice and dave write in sales (dave only reads there), bob works in other,
# carol is read-only, erin disabled.
group_id() { "$bin" user group-add "$1" | sed -n 's/.*(id \([0-9]*\))$/\1/p'; }
sales=$(group_id sales)
other=$(group_id other)
adduser() {
    local name=$1 group=$2 mode=$3
    shift 3
    input="$name-password-1"$'\n' expect 0 "$bin" user add "$name" --password-stdin \
        --group "$group" "$@"
    expect 0 "$bin" user mode "$name" "$group" "$mode"
}
adduser alice sales full
adduser bob other full
adduser carol sales full --read-only
adduser dave sales read
adduser erin sales full
sql "update users set disabled = 1 where username = 'erin'" >/dev/null

start_serve
login() {
    curl -sf -XPOST "$url/login" -d "{\"user\":\"$1\",\"password\":\"$1-password-1\"}" | jq -r .session
}
declare -A token=([alice]=$(login alice) [bob]=$(login bob))
# A contacts row that everybody may read, so that only the documents' rows decide.
new_record() {
    curl -sf -XPOST -H "Authorization: Bearer ${token[alice]}" "$url/records/contacts" \
        -d '{"name":"ACL","globalaclgrp":0}' | jq -r '.record_info[0].server_uid'
}
# listed USER RECORD: the number of documents the documents service lists to USER.
listed() {
    curl -sf -XPOST -H "Authorization: Bearer ${token[$1]}" \
        "$url/services/IDocumentStore/QueryRecordResourceList" \
        -d "{\"StorageUID\":\"$storage\",\"SchemaName\":\"contacts\",\"RecordUID\":\"$2\"}" |
        jq '[.. | objects | select(has("size"))] | length'
}
# chains RECORD: the folders titled RECORD in the database.
chains() { sql "select count(*) from docadmindir where title = '$1'"; }
# check_lists RECORD ALICE BOB: alice adds a document to RECORD through the server; then what
# alice and bob list of RECORD, and one folder chain for it: the server put alice's document into
# the folder that the program made (bob, who can't see it, would get a chain of his own).
echo 'alice-password-1' >alice.pw
printf 'four' >extra.txt
check_lists() {
    local a b
    expect 0 "$bin" remote --url "$url" --user alice --password-file alice.pw put extra.txt \
        --schema contacts --record "$1"
    a=$(listed alice "$1")
    [[ $(chains "$1") == 1 ]] || fail "record $1 has $(chains "$1") folder chains"
    b=$(listed bob "$1")
    [[ $a == "$2" && $b == "$3" ]] || fail "record $1 listed alice $a, bob $b (wanted $2, $3)"
}
rows() { sql "select 'dir', id, globalaclgrp from docadmindir union all
              select 'doc', id, globalaclgrp from docadmindocs order by 1, 2"; }
records=()
for _ in 1 2 3 4 5; do records+=("$(new_record)"); done
[[ ${records[4]} == "{"*"}" ]] || fail "no records: ${records[*]}"
at() { echo "--plugin $storage --path \"contacts#Records\",\"$1\""; }

mkdir -p sample/letters
printf 'one' >sample/a.txt
printf 'two' >sample/letters/b.txt
printf 'three' >sample/letters/c.txt

# ---- the local administrator writes into tool_acl_group: 0 by default, readable by everybody
eval "expect 0 \"\$bin\" import sample $(at "${records[0]}")"
check_lists "${records[0]}" 4 4
printf '[host]\ntool_acl_group = %s\n' "$sales" | cat docadmin.toml - >sales.toml
eval "expect 0 \"\$bin\" import sample --config sales.toml $(at "${records[1]}")"
check_lists "${records[1]}" 4 0

# ---- --as: the user's default group, and the user's row rights
eval "expect 0 \"\$bin\" import sample --as alice $(at "${records[2]}")"
eval "expect 1 \"\$bin\" ls --as bob $(at "${records[2]}")"
[[ $err == *"not found"* ]] || fail "bob reads alice's folder: $out :: $err"
check_lists "${records[2]}" 4 0

# ---- refused before anything is written
before=$(rows)
printf '[host]\ntool_acl_group = 999999\n' | cat docadmin.toml - >nogroup.toml
printf '[host]\ntool_acl_group = -1\n' | cat docadmin.toml - >negative.toml
for refused in "--as nobody:docadmin: --as: user nobody does not exist" \
    "--as erin:docadmin: --as: user erin is disabled" \
    "--as carol:docadmin: --as: user carol may only read" \
    "--as dave:docadmin: --as: user dave may not write in the default ACL group $sales" \
    "--config nogroup.toml:docadmin: [host] tool_acl_group: ACL group 999999 does not exist" \
    "--config negative.toml:host.tool_acl_group must be an ACL group id from 0"; do
    eval "expect 1 \"\$bin\" import sample ${refused%%:*} $(at "${records[3]}")"
    [[ $err == *"${refused#*:}"* ]] || fail "import ${refused%%:*}: $err"
done
[[ $(rows) == "$before" ]] || fail "a refused import wrote rows: $(diff <(echo "$before") <(rows))"
eval "expect 0 \"\$bin\" ls --as carol $(at "${records[2]}")" # reading is allowed

# ---- repair-acl: rows of an earlier version (group -1) of a record the server hasn't read yet
maxdir=$(sql "select max(id) from docadmindir")
maxdoc=$(sql "select max(id) from docadmindocs")
eval "expect 0 \"\$bin\" import sample $(at "${records[4]}")"
sql "update docadmindir set globalaclgrp = -1 where id > $maxdir;
     update docadmindocs set globalaclgrp = -1 where id > $maxdoc" >/dev/null
before=$(rows)
expect 0 "$bin" repair-acl --group sales
[[ $out == "moved 3 folder(s) and 3 document(s) without an ACL group into group $sales" ]] ||
    fail "repair-acl said: $out"
[[ $(rows) == "$(sed "s/|-1\$/|$sales/" <<<"$before")" ]] ||
    fail "repair-acl moved other rows: $(diff <(echo "$before") <(rows))"
check_lists "${records[4]}" 4 0
expect 0 "$bin" repair-acl --group 0
[[ $out == "moved 0 folder(s) and 0 document(s) without an ACL group into group 0" ]] ||
    fail "a second repair-acl: $out"
expect 1 "$bin" repair-acl --group nosuchgroup
expect 2 "$bin" repair-acl

finish "acl verbs ok ($backend)"
