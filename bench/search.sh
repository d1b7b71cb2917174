#!/usr/bin/env bash
# The search by stored documents (the module's record filter) next to one WITH RECURSIVE query
# that finds the same records, on SQLite and PostgreSQL in one run: 100,000 documents in 10,000
# records with folders three levels deep. Prints time and statements of each and the ratio
# search / recursive query (target: at most 3 on both databases).
#   bench/search.sh [RECORDS] [DOCUMENTS_PER_RECORD]
set -euo pipefail
cd "$(dirname "$0")/.."
records=${1:-10000}
docs=${2:-10}
cmake --preset release -B build/release >/dev/null
cmake --build build/release -j2 --target search_bench >/dev/null
state=$(mktemp -d /tmp/docadmin-searchbench.XXXXXX)
trap 'scripts/pg-peer stop "$state/pg" >/dev/null 2>&1 || true; rm -rf "$state"' EXIT
pg_args=()
if CI=true scripts/pg-peer start "$state/pg" >/dev/null; then
    pg_args=(--pg "$(cat "$state/pg/conninfo")")
else
    echo "search.sh: no PostgreSQL server; SQLite only" >&2
fi
build/release/bench/search/search_bench --records "$records" --docs "$docs" --dir "$state" \
    "${pg_args[@]}"
