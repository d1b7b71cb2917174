#!/usr/bin/env bash
# The user verbs of docadmin end to end on SQLite: password rules on standard input, names that
# compare without case and spaces, names of an older database that now compare equal, control
# characters in listings, and the modes of what the program creates.
#   tests/apps/user_verbs_test.sh path/to/docadmin
set -uo pipefail
source "$(dirname "$0")/verbs_lib.sh" docadmin-users "$1"
umask 022
db=$DOCADMIN_DATA/docadmin.db

hash_of() { sqlite3 "$db" "select passwordhash from users where username = '$1'"; }

# An empty line is no password: refused, and nothing is created.
input=$'\n' refuses '*password*' "$bin" user add alice --password-stdin
expect 0 "$bin" user list
[[ $out != *alice* ]] || fail "a refused password created the user: $out"

input=$'correct horse\n' expect 0 "$bin" user add ' alice ' --password-stdin
input=$'another one\n' refuses '*exists*' "$bin" user add ALICE --password-stdin

# passwd refuses an empty line and keeps the password; a good one replaces it.
before=$(hash_of alice)
input=$'\n' expect 1 "$bin" user passwd ALICE --password-stdin
[[ $out != *changed* && $(hash_of alice) == "$before" ]] || fail "empty passwd changed: $out"
input=$'battery staple\n' expect 0 "$bin" user passwd ALICE --password-stdin
[[ $out == "password of alice changed" && $(hash_of alice) != "$before" ]] || fail "passwd: $out"

# Control characters are refused in new names and shown escaped from older rows.
input=$'correct horse\n' expect 1 "$bin" user add $'ev\x1b[2Je' --password-stdin
sqlite3 "$db" "insert into users (username, fullname) values
    ('mal' || char(27) || '[31m', 'tab' || char(9) || 'name')"
expect 0 "$bin" user list
[[ $out != *$'\x1b'* ]] || fail "a raw escape character reached the listing"
[[ $out == *'mal\x1B[31m'*'tab\x09name'* ]] || fail "listing: $out"

# Names of an older database that now compare equal: listed with a warning, then renamed apart.
sqlite3 "$db" "insert into users (username) values ('Bob'), ('BOB')"
expect 0 "$bin" user list
[[ $err == *warning*'"Bob"'*'"BOB"'* ]] || fail "no warning about Bob and BOB: $err"
refuses '*ambiguous*' "$bin" user mode bob 0 read
expect 0 "$bin" user rename BOB robert
expect 0 "$bin" user list
[[ -z $err && $out == *robert* ]] || fail "after the rename: $out :: $err"

# What the program creates is its owner's only, though the shell's mask allows more.
mkdir sample && echo hi >sample/a.txt
expect 0 "$bin" import sample
for f in "$DOCADMIN_DATA" "$DOCADMIN_DATA/docroot"; do
    [[ $(stat -c %a "$f") == 700 ]] || fail "$f has mode $(stat -c %a "$f")"
done
[[ $(stat -c %a "$db") == 600 ]] || fail "$db has mode $(stat -c %a "$db")"

finish "user verbs: all checks passed"
