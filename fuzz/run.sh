#!/usr/bin/env bash
# usage: run.sh [SECONDS_PER_TARGET] BUILD_DIR
#
# Runs every fuzzer of the build over its seeds in corpus/, one per processor at a time, for SECONDS_PER_TARGET seconds
# each (default 60), and prints one line for each. BUILD_DIR/fuzz/found/ keeps the inputs with new coverage for the next
# run. The exit status is 1 if any has found a fault. The input is then in BUILD_DIR/fuzz/faults/, and
# `tests/sandbox.sh TARGET FILE` reproduces the fault.
set -euo pipefail

usage() {
    echo "usage: $0 [SECONDS_PER_TARGET] BUILD_DIR" >&2
    exit 2
}

SECONDS_EACH=60
if [ $# -eq 2 ]; then
    SECONDS_EACH=$1
    shift
fi
if [ $# -ne 1 ] || ! [[ $SECONDS_EACH =~ ^[1-9][0-9]*$ ]]; then usage; fi
SEEDS=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/corpus
SANDBOX=$SEEDS/../../tests/sandbox.sh
BUILD=$(readlink -e "$1") || usage

# The detection of stack use after return is slow for threads as short as these. A small quarantine keeps freed memory
# below the limit.
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=0:quarantine_size_mb=16:malloc_context_size=8
export ASAN_OPTIONS=$ASAN_OPTIONS:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1

# longest TARGET: the maximal size of an input; longer conversations cost more time than they add coverage
longest() {
    case $1 in
        device_fuzz) echo 160 ;;
        service_fuzz) echo 400 ;;
        *) echo 2000 ;;
    esac
}

# stat LOG NAME: one of the figures that a fuzzer prints at its end
stat() {
    sed -n "s/^stat::$2: *//p" "$1" | tail -n 1
}

# fuzz TARGET: runs it and prints its line; fails if it has found a fault
fuzz() {
    local target=$1 log=$BUILD/fuzz/$1.log found=$BUILD/fuzz/found/$1 faults=$BUILD/fuzz/faults/$1 status=0
    mkdir -p "$found" "$faults"
    "$SANDBOX" "$BUILD/fuzz/$target" \
        -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=512 -malloc_limit_mb=64 \
        -max_len="$(longest "$target")" -artifact_prefix="$faults/" -print_final_stats=1 -print_funcs=0 \
        "$found" "$SEEDS/$target" >"$log" 2>&1 || status=$?
    local coverage
    coverage=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)
    printf '%-14s %9s executions, %6s/s, coverage %5s: %s\n' "$target" \
        "$(stat "$log" number_of_executed_units)" "$(stat "$log" average_exec_per_sec)" "${coverage:-?}" \
        "$(verdict "$status" "$log")"
    return "$status"
}

# verdict STATUS LOG: the result of a run in words
verdict() {
    [ "$1" -ne 0 ] || { echo "no findings"; return; }
    local input
    input=$(sed -n 's/.*Test unit written to //p' "$2" | tail -n 1)
    echo "A FINDING, reproduced by ${input:-the seeds}; see $2"
}

targets=()
for seeds in "$SEEDS"/*_fuzz; do
    target=$(basename "$seeds")
    [ -x "$BUILD/fuzz/$target" ] || { echo "$0: $BUILD/fuzz/$target has not been built" >&2; exit 2; }
    targets+=("$target")
done

faults=0
running=0
for target in "${targets[@]}"; do
    if [ "$running" -eq "$(nproc)" ]; then
        wait -n || faults=$((faults + 1))
        running=$((running - 1))
    fi
    fuzz "$target" &
    running=$((running + 1))
done
for (( ; running > 0; --running)); do
    wait -n || faults=$((faults + 1))
done
exit $((faults > 0))
