#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset, clang) and runs them one after another.
#
#   fuzz/run.sh [SECONDS [TARGET...]]
#                           fuzz every target (or the named ones: ace sff run contig bam) for
#                           SECONDS (default 60), then print the executions per target; two
#                           calls with different targets can run side by side on two cores
#   fuzz/run.sh --replay    run every seed of fuzz/corpus/ once (for CI); no fuzzing
#
# The committed seeds are only read: inputs that the fuzzer finds go to
# build/fuzz/fuzz-work/<target>/corpus, crash reproducers to .../artifacts, logs to
# .../fuzz.log. The exit status is 1 when any target found a problem.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=fuzz
seconds=60
targets=(ace sff run contig bam)
usage="usage: fuzz/run.sh [SECONDS [TARGET...]] | --replay"
case "${1:-}" in
    --replay) mode=replay ;;
    "") ;;
    *[!0-9]* | 0)
        echo "$usage" >&2
        exit 2
        ;;
    *) seconds=$1 ;;
esac
if (($# > 1)); then
    shift
    for t in "$@"; do
        case $t in
            ace | sff | run | contig | bam) ;;
            *)
                echo "fuzz/run.sh: unknown target $t; $usage" >&2
                exit 2
                ;;
        esac
    done
    targets=("$@")
fi

# One build at a time, for calls started side by side.
mkdir -p build
(
    flock 9
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}"
) 9>build/.fuzz-build.lock

bin=build/fuzz/fuzz
work=build/fuzz/fuzz-work
mkdir -p "$work"
# Written aside and moved, so that a run beside this one never reads half a dictionary.
cat fuzz/ace.dict fuzz/sff.dict >"$work/run.dict.$$"
mv "$work/run.dict.$$" "$work/run.dict"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}"

# Per-target options: the dictionary.
options_for() {
    case $1 in
        ace) echo "-dict=fuzz/ace.dict" ;;
        sff) echo "-dict=fuzz/sff.dict" ;;
        run) echo "-dict=$work/run.dict" ;;
        contig | bam) echo "" ;;
    esac
}

stat_of() {  # stat_of NAME LOG: a value from libFuzzer's final statistics
    sed -n "s/^stat::$1: *\([0-9]*\).*/\1/p" "$2" | tail -n 1
}

failed=()
summary=()
for t in "${targets[@]}"; do
    dir="$work/$t"
    mkdir -p "$dir/corpus" "$dir/artifacts"
    log="$dir/fuzz.log"
    # shellcheck disable=SC2046  # the options are meant to split into words
    set -- $(options_for "$t") -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
        -artifact_prefix="$dir/artifacts/"
    status=0
    if [[ $mode == replay ]]; then
        echo "== fuzz_$t: replaying fuzz/corpus/$t"
        "$bin/fuzz_$t" "$@" -runs=0 "fuzz/corpus/$t" >"$log" 2>&1 || status=$?
    else
        echo "== fuzz_$t: fuzzing for $seconds s"
        "$bin/fuzz_$t" "$@" -max_total_time="$seconds" "$dir/corpus" "fuzz/corpus/$t" \
            >"$log" 2>&1 || status=$?
    fi
    runs=$(stat_of number_of_executed_units "$log")
    rate=$(stat_of average_exec_per_sec "$log")
    result=ok
    if [[ $status -ne 0 ]]; then
        result="FAILED (exit $status, see $log)"
        failed+=("$t")
        grep -E "ERROR:|runtime error|SUMMARY|Test unit written|fuzz_(run|contig):" "$log" | head -n 20 || true
    fi
    summary+=("$(printf '%-12s %12s executions %8s exec/s  %s' "fuzz_$t" "${runs:-?}" "${rate:-?}" "$result")")
done

echo
printf '%s\n' "${summary[@]}"
if [[ ${#failed[@]} -gt 0 ]]; then
    echo "problems found by: ${failed[*]}"
    exit 1
fi
