#!/usr/bin/env bash
# Runs the demo against an existing build and checks its outcome lines, in order.
set -euo pipefail
root=$1
build=$2
out=$(mktemp)
trap 'rm -f "$out"' EXIT
if ! "$root/scripts/demo" --build-dir "$build" --no-build >"$out" 2>&1; then
    cat "$out"
    echo "demo failed"
    exit 1
fi
expected='OUTCOME two-phase commit: as expected (XA_OK from prepare and commit)
OUTCOME rollback: as expected (XA_OK from prepare and rollback)
OUTCOME refused commit: as expected (XAER_RMFAIL from commit)
OUTCOME listener without an answer: as expected (XAER_RMFAIL, then XA_OK on a new connection)
OUTCOME the next commit: as expected (XA_OK)
OUTCOME recover: as expected (XA_OK with 0 XIDs)
OUTCOME trace: written to one file per process'
actual=$(grep '^OUTCOME' "$out")
if [ "$actual" != "$expected" ]; then
    cat "$out"
    diff <(echo "$expected") <(echo "$actual") || true
    exit 1
fi
grep -q '{ Varnelink xa_commit_entry_jms' "$out" || { echo "no commit trace shown"; exit 1; }
echo "demo outcome lines match"
