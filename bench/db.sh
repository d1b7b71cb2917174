#!/usr/bin/env bash
# The data layer against the raw sqlite3 and libpq APIs: 20,000 rows inserted through
# IDBSQLStatement and read back through TKRRecordSet by an in-list, in autocommit and in one
# transaction, next to the same work done with the C APIs, in one run. Prints the ratios
# (layer / raw; target: at most 1.25 in the transaction case on both databases).
#   bench/db.sh [ROWS]
set -euo pipefail
cd "$(dirname "$0")/.."
rows=${1:-20000}
cmake --preset release -B build/release >/dev/null
cmake --build build/release -j2 --target db_bench >/dev/null
state=$(mktemp -d /tmp/docadmin-dbbench.XXXXXX)
trap 'scripts/pg-peer stop "$state/pg" >/dev/null 2>&1 || true; rm -rf "$state"' EXIT
pg_args=()
if CI=true scripts/pg-peer start "$state/pg" >/dev/null; then
    pg_args=(--pg "$(cat "$state/pg/conninfo")")
else
    echo "db.sh: no PostgreSQL server; SQLite only" >&2
fi
build/release/bench/db/db_bench --rows "$rows" --dir "$state" "${pg_args[@]}"
