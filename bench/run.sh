#!/usr/bin/env bash
# Times the tool against the physical floor of its work on a generated data set.
#
#   bench/run.sh [--reads N] [--data DIR] [--runs K] [--growth]
#
# Builds the bench preset (Sorvexa, floor, micro, make_dataset), generates the data set once
# into DIR/nN (kept for later runs), and times, K times each, in turn so that slow drift of
# the machine hits every measure alike:
#   Sorvexa mode 1, Sorvexa -f (mode 3), Sorvexa on an ACE file with no contigs (the
#   indexing alone), floor, floor -f, and cat of the SFF files to /dev/null,
# all from the page cache. It prints the medians with peak RSS and the ratios that the tool
# is held to.
#
# --growth instead times mode 3 (and floor -f for reference) at 50,000 and 800,000 reads and
# prints how time and peak RSS grow over the sixteenfold data.
#
# The micro-benchmarks are built too and run on their own:
#   build/bench/bench/micro [--data=DIR] [--benchmark_filter=REGEX]
set -euo pipefail

reads=200000
data=/tmp/sorvexa-bench
runs=5
growth=0

usage() {
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "${BASH_SOURCE[0]}"
}

while (($# > 0)); do
    case "$1" in
        --reads) reads=${2:?--reads needs a number}; shift 2 ;;
        --data) data=${2:?--data needs a directory}; shift 2 ;;
        --runs) runs=${2:?--runs needs a number}; shift 2 ;;
        --growth) growth=1; shift ;;
        -h | --help) usage; exit 0 ;;
        *) echo "run.sh: unknown argument $1" >&2; usage >&2; exit 2 ;;
    esac
done
[[ $reads =~ ^[0-9]+$ && $reads -gt 0 ]] || { echo "run.sh: --reads takes a positive number" >&2; exit 2; }
[[ $runs =~ ^[0-9]+$ && $runs -gt 0 ]] || { echo "run.sh: --runs takes a positive number" >&2; exit 2; }

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
mkdir -p "$data"
data=$(cd "$data" && pwd)

if [[ ! -x /usr/bin/time ]]; then
    if [[ $(id -u) -eq 0 ]]; then
        apt-get install -y time >/dev/null
    else
        echo "run.sh: needs GNU time as /usr/bin/time (Debian package 'time')" >&2
        exit 1
    fi
fi

echo "== building (preset bench)"
(
    cd "$root"
    cmake --preset bench >/dev/null
    cmake --build --preset bench --target Sorvexa floor micro make_dataset
)
build=$root/build/bench
tool=$build/Sorvexa
floor=$build/bench/floor
make_dataset=$build/examples/make_dataset

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# dataset N: sets dir to DIR/nN, generating the set there unless it is already complete; a
# marker written last tells a finished set from an interrupted one.
dataset() {
    dir=$data/n$1
    if [[ ! -f $dir/.complete ]]; then
        echo "== generating $1 reads into $dir"
        rm -rf "$dir"
        "$make_dataset" --reads "$1" --seed 1 --out "$dir" --prefix run
        printf 'AS 0 0\n' >"$dir/empty.ace"
        touch "$dir/.complete"
    fi
}

# measure NAME CMD...: one timed run, appending "wall_us rss_kib user_s sys_s" to
# $scratch/NAME. The clock is the shell's own, so that no extra process is timed.
# Outputs of earlier runs are removed and flushed first, so that no run pays for another's
# write-back or truncation.
measure() {
    local name=$1
    shift
    rm -f "$dir/run.reads" "$dir/run.krv" "$dir/empty.reads" "$dir/empty.krv" "$dir/floor.out"
    sync
    local t0 t1
    t0=${EPOCHREALTIME/[.,]/}
    if ! /usr/bin/time -v -o "$scratch/time" "$@" >/dev/null 2>"$scratch/stderr"; then
        echo "run.sh: failed: $*" >&2
        cat "$scratch/stderr" >&2
        exit 1
    fi
    t1=${EPOCHREALTIME/[.,]/}
    awk -F': ' -v us=$((t1 - t0)) '
        /Maximum resident set size/ { rss = $2 }
        /User time \(seconds\)/ { user = $2 }
        /System time \(seconds\)/ { sys = $2 }
        END { print us, rss, user, sys }' "$scratch/time" >>"$scratch/$name"
    # Output size of the last run, for comparing the tool's records with the floor's.
    local out=0
    case "$name" in
        mode1 | mode3) out=$(stat -c %s "$dir/run.reads") ;;
        floor1 | floor3) out=$(stat -c %s "$dir/floor.out") ;;
    esac
    echo "$out" >"$scratch/$name.out"
}

# median FILE COLUMN
median() {
    sort -n -k"$2","$2" "$1" | awk -v c="$2" '{ v[NR] = $c }
        END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

seconds() { awk -v us="$(median "$scratch/$1" 1)" 'BEGIN { printf "%.3f", us / 1e6 }'; }
cpu() { awk -v s="$(median "$scratch/$1" "$2")" 'BEGIN { printf "%.2f", s }'; }
# The fastest run: on a shared machine the one least disturbed by others.
fastest() { sort -n "$scratch/$1" | awk 'NR == 1 { printf "%.3f", $1 / 1e6 }'; }
rss_mib() { awk -v k="$(median "$scratch/$1" 2)" 'BEGIN { printf "%.1f", k / 1024 }'; }

# verdict VALUE LIMIT
verdict() { awk -v v="$1" -v l="$2" 'BEGIN { print (v <= l ? "ok" : "OVER") }'; }

if ((growth)); then
    # floor -f is timed alongside: past a few GiB of output the kernel's write-back throttles
    # any writer, and the floor's own ratio shows how much of the growth that explains.
    small=50000 large=800000
    for n in $small $large; do
        dataset "$n"
        cat "$dir"/run_a.sff "$dir"/run_b.sff >/dev/null
        for ((i = 1; i <= runs; ++i)); do
            measure "g$n" "$tool" -f "$dir/run.ace" "$dir/run_a.sff" "$dir/run_b.sff"
            measure "f$n" "$floor" -f "$dir/floor.out" "$dir/run_a.sff" "$dir/run_b.sff"
        done
        rm -f "$dir/run.reads" "$dir/run.krv" "$dir/floor.out"
    done
    echo
    printf '%-14s %10s %10s %10s %10s %12s %10s\n' "" "mode 3 s" "user s" "sys s" "RSS MiB" \
        "floor -f s" "user s"
    for n in $small $large; do
        printf '%-14s %10s %10s %10s %10s %12s %10s\n' "$n reads" "$(seconds "g$n")" \
            "$(cpu "g$n" 3)" "$(cpu "g$n" 4)" "$(rss_mib "g$n")" "$(seconds "f$n")" "$(cpu "f$n" 3)"
    done
    quotient() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", b / a }'; }
    t=$(quotient "$(seconds "g$small")" "$(seconds "g$large")")
    r=$(quotient "$(rss_mib "g$small")" "$(rss_mib "g$large")")
    u=$(quotient "$(cpu "g$small" 3)" "$(cpu "g$large" 3)")
    f=$(quotient "$(seconds "f$small")" "$(seconds "f$large")")
    fu=$(quotient "$(cpu "f$small" 3)" "$(cpu "f$large" 3)")
    echo
    echo "data ratio                   16.00"
    printf 'time ratio (mode 3)         %6s   (target <= 18: %s)\n' "$t" "$(verdict "$t" 18)"
    printf 'user time ratio (mode 3)    %6s\n' "$u"
    printf 'RSS ratio (mode 3)          %6s\n' "$r"
    printf 'time ratio (floor -f)       %6s\n' "$f"
    printf 'user time ratio (floor -f)  %6s\n' "$fu"
    exit 0
fi

dataset "$reads"
sffs=("$dir/run_a.sff" "$dir/run_b.sff")

echo "== warming the page cache"
cat "${sffs[@]}" "$dir/run.ace" >/dev/null
"$tool" "$dir/empty.ace" "${sffs[@]}" >/dev/null

echo "== $runs runs of each measure on $reads reads ($(du -shc "${sffs[@]}" | tail -1 | cut -f1) of SFF)"
for ((i = 1; i <= runs; ++i)); do
    measure mode1 "$tool" "$dir/run.ace" "${sffs[@]}"
    measure mode3 "$tool" -f "$dir/run.ace" "${sffs[@]}"
    measure index "$tool" "$dir/empty.ace" "${sffs[@]}"
    measure floor1 "$floor" "$dir/floor.out" "${sffs[@]}"
    measure floor3 "$floor" -f "$dir/floor.out" "${sffs[@]}"
    measure cat cat "${sffs[@]}"
    measure launch true
    echo "   run $i of $runs done"
done
rm -f "$dir/run.reads" "$dir/run.krv" "$dir/empty.reads" "$dir/empty.krv" "$dir/floor.out"

echo
printf '%-22s %8s %8s %8s %8s %10s %8s %8s\n' measure "wall s" "min s" "user s" "sys s" \
    "reads/s" "RSS MiB" "out MiB"
row() {
    local label=$1 name=$2 s
    s=$(seconds "$name")
    printf '%-22s %8s %8s %8s %8s %10s %8s %8s\n' "$label" "$s" "$(fastest "$name")" \
        "$(cpu "$name" 3)" "$(cpu "$name" 4)" \
        "$(awk -v n="$reads" -v s="$s" 'BEGIN { printf "%.0f", n / s }')" "$(rss_mib "$name")" \
        "$(awk -v b="$(cat "$scratch/$name.out")" 'BEGIN { printf (b > 0 ? "%.1f" : "-"), b / 1048576 }')"
}
row "Sorvexa mode 1" mode1
row "Sorvexa mode 3 (-f)" mode3
row "Sorvexa index only" index
row "floor" floor1
row "floor -f" floor3
row "cat SFF > /dev/null" cat
row "launch only (true)" launch

ratio() { awk -v a="$(seconds "$1")" -v b="$(seconds "$2")" 'BEGIN { printf "%.2f", a / b }'; }
budget=$(awk -v n="$reads" 'BEGIN { printf "%.1f", 16 + 96 * n / 1048576 }')
echo
printf '%-34s %7s %9s  %s\n' ratio value target verdict
check() { printf '%-34s %7s %9s  %s\n' "$1" "$2" "<= $3" "$(verdict "$2" "$3")"; }
v=$(ratio mode3 floor3); check "mode 3 / floor -f" "$v" 1.5
v=$(ratio mode1 floor1); check "mode 1 / floor" "$v" 1.5
v=$(ratio index cat); check "index only / cat" "$v" 2
for m in mode1 mode3 index; do
    v=$(awk -v r="$(rss_mib "$m")" -v b="$budget" 'BEGIN { printf "%.2f", r / b }')
    check "RSS $m / $budget MiB budget" "$v" 1
done
echo
echo "RSS budget: 16 MiB + 96 B x $reads reads. The floor writes a record for every read of"
echo "the SFF files; the tool only for the reads placed in contigs, plus the contig lines."
echo "Every wall time includes starting a process, which 'launch only' shows on its own."
