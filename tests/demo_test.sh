#!/usr/bin/env bash
# What a new user runs first, against an existing build. "demo_test.sh ROOT BUILD" runs the
# demo and checks its outcome lines in order. "demo_test.sh ROOT BUILD examples" runs every
# example that the README and the tools' --help print, as written, in one xajms-sandbox: the
# README's in order, then each tool's with the listener its help says to start. Exit status
# 77 (skipped) where no sandbox can be made, and under ThreadSanitizer (the fourth argument
# names the build's sanitizers): the load example opens on four threads at once, and the
# library counts opens without a lock; its threads are the stress test's to check.
set -euo pipefail
root=$1
build=$2
mode=${3:-demo}
tools=$build/tools

examples() {
    if [[ ${4:-} == *thread* ]]; then
        echo "skipped: built with ThreadSanitizer, which the stress test serves"
        exit 77
    fi
    if ! why=$("$tools/xajms-sandbox/xajms-sandbox" true 2>&1); then
        echo "skipped: $why"
        exit 77
    fi
    exec "$tools/xajms-sandbox/xajms-sandbox" bash "$0" "$root" "$build" examples-inside
}

# From here on (examples-inside) this runs in the sandbox, with the tools on PATH.
work=
listeners=()
started=0  # listeners started in all, which numbers their output files
stop_listeners() {
    for pid in "${listeners[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" || { echo "listener $pid did not end with status 0"; exit 1; }
    done
    listeners=()
}

# run LINE: one example as written, from the root of the clone, with BUILD for "build". A
# line ending in '&' is a listener: it must print its port and no warning. Lines that run
# tests only list them; scripts are .ci/run's to run; an install goes under DESTDIR.
run() {
    local line
    line=$(sed -E "s#(^| )build(/| |\$)#\\1$build\\2#g" <<<"$1")
    echo "\$ $1"
    if [[ $line =~ ^(.*[^\&])\&[[:space:]]*(#.*)?$ ]]; then
        local n=$((started++))
        eval "${BASH_REMATCH[1]} >$work/listener$n.out 2>$work/listener$n.err </dev/null &"
        listeners+=($!)
        for _ in $(seq 200); do
            grep -q '^port=' "$work/listener$n.out" && break
            sleep 0.05
        done
        grep -q '^port=' "$work/listener$n.out" || { cat "$work/listener$n.err"; exit 1; }
        [ ! -s "$work/listener$n.err" ] || { cat "$work/listener$n.err"; exit 1; }
        return 0
    fi
    line=$(sed -E 's/[[:space:]]+#.*$//' <<<"$line")  # the comment, before adding to the line
    case $line in
        scripts/*) return 0 ;;
        # Listed from a copy of the test files, as a ctest run writes the logs of the folder.
        ctest\ *)
            (cd "$build" && find . -name CTestTestfile.cmake -exec cp --parents {} "$work" \;)
            line="${line/--test-dir $build/--test-dir $work} -N" ;;
        */tests/*--gtest_filter=*) line="$line --gtest_list_tests" ;;
        cmake\ --install\ *) line="DESTDIR=$work/install $line" ;;
    esac
    local out status=0
    out=$(eval "$line" </dev/null 2>&1) || status=$?
    # A listing must name what the example runs: one test, or some tests.
    if [ "$status" -ne 0 ] || { [[ $line == *--gtest_list_tests ]] &&
        [ "$(grep -c '^  ' <<<"$out")" -ne 1 ]; } ||
        { [[ $line == ctest* ]] && ! grep -q '^Total Tests: [1-9]' <<<"$out"; }; then
        echo "$out"
        echo "FAILED (status $status): $1"
        exit 1
    fi
}

# The examples of a tool's --help: the indented lines under "Example:" or "Examples ...:".
help_examples() {
    "$1" --help | awk '/^Examples?( \(.*\))?:$/ { on = 1; next }
                       on && /^  / { print substr($0, 3); next }
                       { on = 0 }'
}

inside() {
    cd "$root"
    work=$(mktemp -d)
    trap 'stop_listeners; rm -rf "$work"' EXIT
    # The README's shell blocks, in order.
    while IFS= read -r line; do
        run "$line"
    done < <(awk '/^```sh$/ { on = 1; next } /^```$/ { on = 0 } on && NF' README.md)
    stop_listeners
    [ "$(xajms-trace -h)" = "$(xajms-trace --help)" ] || { echo "xajms-trace -h is not --help"; exit 1; }
    for tool in xajms-sandbox xajms-listener xajms-registry xajms-drive; do
        [ "$("$tool" -h)" = "$("$tool" --help)" ] || { echo "$tool -h is not --help"; exit 1; }
        [ "$tool" != xajms-drive ] || run "xajms-listener --name EG1 &"
        mapfile -t lines < <(help_examples "$tool")
        [ ${#lines[@]} -gt 0 ] || { echo "$tool --help gives no example"; exit 1; }
        for line in "${lines[@]}"; do
            run "$line"
        done
        stop_listeners
    done
    echo "every example works as written"
}

demo() {
    out=$(mktemp)  # global: the trap runs after the function has returned
    trap 'rm -f "$out"' EXIT
    if ! "$root/scripts/demo" --build-dir "$build" --no-build >"$out" 2>&1; then
        cat "$out"
        echo "demo failed"
        exit 1
    fi
    local expected='OUTCOME two-phase commit: as expected (XA_OK from prepare and commit)
OUTCOME rollback: as expected (XA_OK from prepare and rollback)
OUTCOME refused commit: as expected (XAER_RMFAIL from commit)
OUTCOME listener without an answer: as expected (XAER_RMFAIL, then XA_OK on a new connection)
OUTCOME the next commit: as expected (XA_OK)
OUTCOME recover: as expected (XA_OK with 0 XIDs)
OUTCOME trace: written to one file per process'
    local actual
    actual=$(grep '^OUTCOME' "$out")
    if [ "$actual" != "$expected" ]; then
        cat "$out"
        diff <(echo "$expected") <(echo "$actual") || true
        exit 1
    fi
    grep -q '{ Varnelink xa_commit_entry_jms' "$out" || { echo "no commit trace shown"; exit 1; }
    echo "demo outcome lines match"
}

case $mode in
    demo) demo ;;
    examples) examples "$@" ;;
    examples-inside) inside ;;
esac
