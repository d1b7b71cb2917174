#!/usr/bin/env bash
# The tree verbs of docadmin end to end: import, ls (text, --json, --where), get, export with
# masks, replace with and without archive, versions, rm, mkdir, record folders, cleanup-dead-links,
# a missing module and exit codes.
# Runs in a private data folder with the built-in defaults (SQLite and the local store), or with
# "postgresql" on a schema of its own in the test server named by DOCADMIN_PG_CONNINFO_FILE.
#   tests/apps/tree_verbs_test.sh path/to/docadmin [sqlite|postgresql]
set -uo pipefail
source "$(dirname "$0")/verbs_lib.sh" docadmin-apps "$1"
backend=${2:-sqlite}

[[ $backend == postgresql ]] && use_postgresql apps "$DOCADMIN_DATA/docadmin.toml"

# Every document of a tree in JSON as "folder/path/name<TAB>id<TAB>size<TAB>version", sorted.
docs() {
    jq -r 'def walk(p): (.documents[] | "\(p)\(.name)\t\(.id)\t\(.size)\t\(.version)"),
                        (.folders[] as $f | $f | walk(p + $f.title + "/"));
           .root | walk("")' | sort
}
id_of() { awk -F'\t' -v n="$1" '$1 == n { print $2 }' <<<"$listing"; }

# A sample folder: nested folders, one name in two folders, an empty file, a binary file.
mkdir -p sample/letters/2024 sample/scans sample/empty
printf 'first letter\n' >sample/letters/a.txt
printf 'second letter\n' >sample/letters/2024/a.txt
printf '' >sample/letters/2024/zero.txt
head -c 70000 /dev/urandom >sample/scans/scan.pdf
printf 'note' >sample/readme.md

# ---- import and list
expect 0 "$bin" import sample
[[ $out == "imported 5 documents from $work/sample into folder "* ]] || fail "import said: $out"
expect 0 "$bin" ls --json
listing=$(docs <<<"$out")
want=$(cd sample && find . -type f -printf '%P\n' | sort)
[[ $(cut -f1 <<<"$listing" | sed 's|^sample/||') == "$want" ]] ||
    fail "ls --json lists other documents: $listing"
[[ $(jq '.documents' <<<"$out") == 5 && $(jq '.bytes' <<<"$out") == 70031 ]] ||
    fail "ls --json totals: $(jq -c '[.folders,.documents,.bytes]' <<<"$out")"
[[ $(awk -F'\t' '$1=="sample/scans/scan.pdf" {print $3}' <<<"$listing") == 70000 ]] ||
    fail "size of scan.pdf in the listing"
expect 0 "$bin" ls
grep -q '^  sample/  \[folder [0-9]*\]$' <<<"$out" || fail "text ls has no sample folder: $out"
grep -q 'scan.pdf  \[[0-9]*\]  70000 bytes  v' <<<"$out" || fail "text ls has no scan.pdf line"
grep -q '^5 folders, 5 documents, 70031 bytes$' <<<"$out" || fail "text ls totals: $out"

# ---- get: every document comes back byte for byte, to a file or into a folder
while IFS=$'\t' read -r path id _; do
    expect 0 "$bin" get "$id" "$work/got"
    cmp -s "$work/got" "$work/$path" || fail "get $id differs from $path"
done <<<"$listing"
mkdir into
expect 0 "$bin" get "$(id_of sample/scans/scan.pdf)" into
cmp -s into/scan.pdf sample/scans/scan.pdf || fail "get into a folder"
refuses "docadmin: File with ID '999999' not found in repository!" "$bin" get 999999 "$work/none"
[[ ! -e $work/none ]] || fail "get of an unknown id wrote a file"
expect 2 "$bin" get notanumber "$work/none"
expect 2 "$bin" import

# ---- export: all, by file mask, by folder mask
expect 0 "$bin" export out1
# Same files with the same content; the empty folder stays out.
[[ $(cd out1/sample && find . -type f | sort) == $(cd sample && find . -type f | sort) ]] ||
    fail "export wrote other files: $(cd out1 && find . -type f)"
while read -r f; do
    cmp -s "sample/$f" "out1/sample/$f" || fail "exported $f differs"
done < <(cd sample && find . -type f)
[[ ! -e out1/sample/empty ]] || fail "export made a folder for an empty directory"
expect 0 "$bin" export out2 --files '*.txt'
[[ $(cd out2 && find . -type f | sort | tr '\n' ' ') == "./sample/letters/2024/a.txt ./sample/letters/2024/zero.txt ./sample/letters/a.txt " ]] ||
    fail "export --files '*.txt': $(cd out2 && find . -type f)"
expect 0 "$bin" export out3 --dirs 'sc*'
[[ -z $(find out3 -type f) ]] || fail "a folder mask that misses the top folder exported files"

# ---- where-text
expect 0 "$bin" ls --json --where "docname = 'a.txt'"
[[ $(docs <<<"$out" | cut -f1 | tr '\n' ' ') == "sample/letters/2024/a.txt sample/letters/a.txt " ]] ||
    fail "ls --where: $(docs <<<"$out")"
expect 1 "$bin" ls --where "docname = "

# ---- replace and versions
id=$(id_of sample/letters/a.txt)
old_version=$(awk -F'\t' -v i="$id" '$2==i {print $4}' <<<"$listing")
printf 'a new text, longer than before\n' >new.txt
expect 0 "$bin" replace "$id" new.txt
expect 0 "$bin" versions "$id" --json
v=$out
[[ $(jq '.archived | length' <<<"$v") == 1 ]] || fail "one archived version wanted: $v"
[[ $(jq -r '.archived[0].version' <<<"$v") == "$old_version" ]] || fail "archived version: $v"
[[ $(jq '.archived[0].size' <<<"$v") == 13 && $(jq '.current.size' <<<"$v") == 31 ]] ||
    fail "sizes of current and archived version: $v"
[[ $(jq -r '.current.version' <<<"$v") != "$old_version" ]] || fail "version not raised: $v"
old_remote=$(jq -r '.archived[0].remote' <<<"$v")
[[ $old_remote != $(jq -r '.current.remote' <<<"$v") ]] || fail "archiving kept the remote name"
expect 0 "$bin" get "$id" got
cmp -s got new.txt || fail "get after replace"
expect 0 "$bin" store get "$old_remote" old
cmp -s old sample/letters/a.txt || fail "the archived file isn't the old content"
printf 'third\n' >third.txt
expect 0 "$bin" replace "$id" third.txt --no-archive
expect 0 "$bin" versions "$id" --json
[[ $(jq '.archived | length' <<<"$out") == 1 ]] || fail "--no-archive added a version: $out"
# The new content goes to a new file; the replaced one is removed after the row.
prev_remote=$(jq -r '.current.remote' <<<"$v")
[[ $(jq -r '.current.remote' <<<"$out") != "$prev_remote" ]] ||
    fail "--no-archive overwrote the stored file in place"
expect 1 "$bin" store get "$prev_remote" gone
expect 0 "$bin" versions "$id"
grep -q '^1 archived version(s)$' <<<"$out" || fail "text versions: $out"
expect 1 "$bin" replace "$id" missing.txt
expect 1 "$bin" versions 999999

# ---- rm
id=$(id_of sample/readme.md)
expect 0 "$bin" rm "$id"
expect 1 "$bin" get "$id" got
expect 0 "$bin" ls --json
[[ $(jq '.documents' <<<"$out") == 4 ]] || fail "rm left $(jq '.documents' <<<"$out") documents"
expect 1 "$bin" rm "$id"

# ---- mkdir: creates a path once, finds it the second time
expect 0 "$bin" mkdir '"Projects","Alpha, Beta"'
first=$out
[[ $first == '"Projects","Alpha, Beta"  [folder '*']' ]] || fail "mkdir said: $first"
expect 0 "$bin" mkdir '"Projects","Alpha, Beta"'
[[ $out == "$first" ]] || fail "second mkdir made another folder: $out"
expect 0 "$bin" ls --json
[[ $(jq -r '.root.folders[] | select(.title=="Projects") | .folders[0].title' <<<"$out") == "Alpha, Beta" ]] ||
    fail "mkdir folder not listed"

# ---- a record's folder, and another plug-in's tree, are separate trees
rec='"letters#Records","{0F8E2C57-4B1A-4D6E-9C3B-7A5D2E1F6B80}"'
expect 0 "$bin" import sample/scans --path "$rec"
expect 0 "$bin" ls --json --path "$rec"
[[ $(docs <<<"$out" | cut -f1) == "scans/scan.pdf" ]] || fail "record tree: $(docs <<<"$out")"
expect 0 "$bin" ls --json
[[ $(jq -r '.root.folders[] | select(.title=="letters#Records") | .folders[0].title' <<<"$out") == "{0F8E2C57-4B1A-4D6E-9C3B-7A5D2E1F6B80}" ]] ||
    fail "the record folder isn't below letters#Records"
other='{11111111-2222-3333-4444-555555555555}'
expect 0 "$bin" ls --json --plugin "$other"
[[ $(jq '.documents' <<<"$out") == 0 ]] || fail "another plug-in sees documents"
refuses 'docadmin: --plugin: "no-guid" is no GUID in braces' "$bin" ls --plugin 'no-guid'
refuses "docadmin: Folder '$work/no-such-folder' not found!" "$bin" import "$work/no-such-folder"

# ---- a second import of the same folder adds its files again
expect 0 "$bin" import sample/scans --path "$rec"
expect 0 "$bin" ls --json --path "$rec"
[[ $(jq '.documents' <<<"$out") == 2 ]] || fail "second import: $(jq '.documents' <<<"$out")"

# ---- reading verbs write nothing, and paths typed by the user are checked
all_folders() { "$bin" ls --json --plugin '{3A3351B6-2371-42D8-AFDD-725670C9F106}' | jq .folders; }
before=$(all_folders)
refuses "docadmin: Folder 'typo' not found (path \"{5E0C7A3D-2B9F-4C61-8D47-A1F3E6B20C95}\",\"typo\")" \
    "$bin" ls --path '"typo"'
expect 1 "$bin" export exp-typo --path '"typo"'
expect 0 "$bin" ls --plugin '{22222222-2222-2222-2222-222222222222}'
for p in ',,,' '"abc' '"a"b' '"..","x"' '"a/b"' '""'; do
    expect 1 "$bin" mkdir "$p"
    expect 1 "$bin" ls --path "$p"
done
expect 1 "$bin" import sample --path '"..",".."'
[[ $(all_folders) == "$before" ]] || fail "reading verbs or refused paths made folders"
refuses "docadmin: 'sample/letters/a.txt' is a file; import takes a folder (with everything below it)" \
    "$bin" import sample/letters/a.txt

# ---- import skips links, pipes and loops, and says so; --follow-links stays inside
mkdir -p odd/sub
printf 'x' >odd/sub/f.txt
ln -s "$work/sample/readme.md" odd/out.md
ln -s sub/f.txt odd/in.txt
ln -s .. odd/sub/up
mkfifo odd/pipe
expect 0 "$bin" import odd --path '"odd"'
[[ $out == *"imported 1 documents from $work/odd into folder "*"; skipped 4 entries" ]] ||
    fail "import of links: $out"
[[ $(grep -ac '^docadmin: skipped ' <<<"$err") == 4 ]] && grep -aq "skipped $work/odd/pipe: named pipe" <<<"$err" ||
    fail "skipped entries: $err"
expect 0 "$bin" import odd --path '"odd-followed"' --follow-links
[[ $out == *"imported 2 documents"*"; skipped 3 entries" ]] || fail "--follow-links: $out :: $err"
grep -aq "skipped $work/odd/out.md: symbolic link to '$work/sample/readme.md' outside the imported folder" <<<"$err" ||
    fail "--follow-links outside: $err"

# ---- names that aren't UTF-8 or hold control characters; paths past PATH_MAX
# A title keeps its control character (a document name loses it on save); export writes it as
# '_', as for every character not allowed in a file name, and gives the other bytes back.
mkdir -p "names/caf"$'\xff'/$'d\e[31m'
printf 'odd name' >"names/caf"$'\xff'/$'d\e[31m'/n.txt
expect 0 "$bin" import names --path '"names"'
expect 0 "$bin" ls --json --path '"names"'
[[ $(jq -r '.root.folders[0].folders[0].title' <<<"$out") == "caf%FF" ]] || fail "escaped title: $out"
expect 0 "$bin" ls --path '"names"'
if grep -aq $'\e' <<<"$out" || ! grep -aq 'd\\x1B\[31m/' <<<"$out"; then
    fail "ls wrote a raw control character: $out"
fi
expect 0 "$bin" export exp-names --path '"names"'
cmp -s "names/caf"$'\xff'/$'d\e[31m'/n.txt "exp-names/names/caf"$'\xff'/'d_[31m'/n.txt ||
    fail "export didn't give the original bytes back: $(find exp-names | od -c | head)"
mkdir deep
(cd deep && for i in $(seq 25); do
    n=$(printf '%0200d' "$i")
    mkdir "$n" && cd "$n" && printf '%s' "$i" >f.txt
done)
expect 0 "$bin" import deep --path '"deep"'
[[ $out == "imported 25 documents"* ]] || fail "deep import: $out :: $err"
expect 0 "$bin" export exp-deep --path '"deep"'
[[ $(find exp-deep -type f | wc -l) == 25 ]] || fail "deep export: $out :: $err"

# ---- rows made by hand (or another client): export and get stay inside their folder
sql() {
    if [[ $backend == postgresql ]]; then
        psql "$conninfo options=-csearch_path=$schema" -qAtc "$1"
    else
        sqlite3 "$DOCADMIN_DATA/docadmin.db" "$1"
    fi
}
esc=$([[ $backend == postgresql ]] && echo 'chr(27)' || echo 'char(27)')
sql "update docadmindir set title = '..' where title = 'odd'" || fail "sql"
sql "update docadmindir set title = '' where title = 'sub' and id in (select max(id) from docadmindir where title = 'sub')"
sql "update docadmindocs set docname = '../../escape.txt' where id = (select min(id) from docadmindocs where docname = 'f.txt')"
sql "update docadmindocs set docname = 'bell' || $esc || '[2J.txt' where id = (select max(id) from docadmindocs where docname = 'f.txt')"
[[ $backend == sqlite ]] && sql "update docadmindocs set docname = cast(X'6162FF' as text) where docname = 'in.txt'"
expect 0 "$bin" export hm/a/b
outside=$(find hm -mindepth 1 | LC_ALL=C grep -av '^hm/a\(/b\(/.*\)\?\)\?$')
[[ -z $outside ]] || fail "export left its folder: $outside"
[[ $(find hm -type f -name '.._.._escape.txt' | wc -l) == 1 ]] || fail "hand-made name: $(find hm)"
expect 0 "$bin" ls --json
jq -e . >/dev/null <<<"$out" || fail "ls --json failed on a hand-made name"
expect 0 "$bin" ls
if grep -aq $'\e' <<<"$out"; then fail "ls wrote a raw control character of a hand-made name"; fi
id=$(sql "select min(id) from docadmindocs where docname = '../../escape.txt'")
mkdir into2
expect 0 "$bin" get "$id" into2
[[ -f into2/.._.._escape.txt && $(ls -A into2 | wc -l) == 1 ]] || fail "get into a folder: $(ls -a into2)"
mkdir into3
ln -s "$work/victim" into3/.._.._escape.txt
expect 1 "$bin" get "$id" into3
[[ ! -e $work/victim ]] || fail "get wrote through a link"
mkdir hm2 victim-dir
ln -s "$work/victim-dir" hm2/odd-followed
refuses "docadmin: 'hm2/odd-followed' is a symbolic link; links are not followed" "$bin" export hm2
[[ -z $(ls victim-dir) ]] || fail "export wrote through a folder link"

# ---- cleanup-dead-links: the folder of a record that is gone goes, that of a record that exists
# stays; by default only the folders of loaded plug-ins (this tool's tree is none of them)
kept_uid='{6A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9}'
gone_uid='{7B2C3D4E-5F60-4182-93A4-B5C6D7E8F901}'
sql "insert into contacts (name, globalrecuid) values ('kept', '$kept_uid')" || fail "sql contacts"
for uid in "$kept_uid" "$gone_uid"; do
    expect 0 "$bin" import sample/scans --path "\"contacts#Records\",\"$uid\""
done
expect 0 "$bin" cleanup-dead-links
[[ $out == "removed 0 folder(s) of records that no longer exist" ]] || fail "cleanup: $out"
expect 0 "$bin" cleanup-dead-links --all-plugins
[[ $out == "removed \"{5E0C7A3D-2B9F-4C61-8D47-A1F3E6B20C95}\",\"contacts#Records\",\"$gone_uid\""$'\n'"removed 1 folder(s) of records that no longer exist" ]] ||
    fail "cleanup --all-plugins: $out"
expect 1 "$bin" ls --path "\"contacts#Records\",\"$gone_uid\""
expect 0 "$bin" ls --json --path "\"contacts#Records\",\"$kept_uid\""
[[ $(jq '.documents' <<<"$out") == 1 ]] || fail "the kept record's folder: $out"
[[ $(jq -r '.root.folders[] | select(.title=="letters#Records") | .folders | length' <<<"$("$bin" ls --json)") == 1 ]] ||
    fail "the folders of a table the database doesn't know were touched"

# ---- without the module the tree verbs fail and say where they looked
mkdir -p noplugins badplugins
printf 'no library' >badplugins/libbroken.so
expect 1 env DOCADMIN_PLUGIN_DIR="$work/noplugins" "$bin" ls
[[ $err == "docadmin: The document module {DBAE1129-670F-45DA-8489-6D64A3429BBF} is not loaded from the plug-in folder '$work/noplugins' ([host] plugin_dir or DOCADMIN_PLUGIN_DIR)" ]] ||
    fail "no module: $err"
refuses "*plug-ins that failed:*$work/badplugins/libbroken.so: *" \
    env DOCADMIN_PLUGIN_DIR="$work/badplugins" "$bin" cleanup-dead-links

finish "all checks passed"
