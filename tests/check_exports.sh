#!/usr/bin/env bash
# Compares the dynamic symbols that the library defines with the names listed in
# src/*/exports.txt (or in the one list file given instead of src): a missing or an extra
# export fails. The AddressSanitizer build adds its own ODR markers, which are not exports of
# the library.
set -euo pipefail
lib=$1
src=$2
actual=$(nm -D --defined-only "$lib" | awk 'NF == 3 { print $3 }' | grep -v -E '^(_init|_fini|__odr_asan\..*)$' | sort)
if [ -f "$src" ]; then
    expected=$(grep -v '^$' "$src" | sort)
else
    expected=$(cat "$src"/*/exports.txt | grep -v '^$' | sort)
fi
if [ "$actual" != "$expected" ]; then
    echo "exports differ from src/*/exports.txt (< built, > listed):"
    diff <(echo "$actual") <(echo "$expected") || true
    exit 1
fi
echo "$(echo "$actual" | wc -l) exports match"
