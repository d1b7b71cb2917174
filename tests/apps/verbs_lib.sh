# Shared by the end-to-end tests of the docadmin verbs, sourced with a name and the program:
#   source verbs_lib.sh NAME path/to/docadmin
# Gives a private data folder as the working folder, fail, expect, refuses and finish.
bin=$(realpath "$2")
work=$(mktemp -d "/tmp/$1.XXXXXX")
trap 'rm -rf "$work"' EXIT
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
