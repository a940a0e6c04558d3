#!/usr/bin/env bash
# Scores sorvexa-flowcheck on simulated assemblies of known truth, and times it against
# Sorvexa -f on the benchmark data set.
#
#   bench/flowcheck.sh [--seeds K] [--runs K] [--data DIR] [--build DIR] [--only accuracy|speed]
#                      [--scenarios NAME,NAME,...] [--through ace|bam]
#
# Accuracy: sim_assembly writes assemblies of 2 contigs x 15,000 bases with 40 errors planted
# in the consensus, for seeds 1..K (default 5) of each scenario (--scenarios picks some):
#   gauss-12           normal flow values (the shape the first checker assumed), 12 deep
#   skew-12            skewed values with the spreads of real flows, 12 deep
#   heavy-12           heavy-tailed values, 12 deep
#   mixed-12           skewed and heavy-tailed values, 12 deep; the scenarios below all are
#   mixed-wild0.2-12   0.2% of the template flows wild (anything from 0 to 10 bases), 12 deep
#   mixed-wild2-12     2% wild, 12 deep
#   mixed-wild2-7      2% wild, 6-8 deep
#   mixed-0.6x-7       noise x 0.6, 6-8 deep
#   mixed-2x-7         noise x 2, 6-8 deep
#   mixed-2x-12        noise x 2, 12 deep
#   mixed-long-12      3 runs in 100 of the genome 5 to 12 long, 12 deep
#   mixed-2files-12    reads in two SFF files, noise x 0.7 and x 1.6, 12 deep
#   mixed-2files-7     the same 6-8 deep
#   clean-4            skewed values, noise x 0.8 (as clean as real reads), 4 deep
#   clean-3            the same 3 deep
# Each set is checked first (its consensus is the truth once the planted errors are undone,
# and Sorvexa -f finds every read with flow indexes that agree with the flowgrams). Then
# sorvexa-flowcheck runs with its default options on the ACE file and every SFF file of the
# set. A planted error counts as called when a PASS line of the TSV (every line, while the
# TSV has no filter column) has its contig, position and letter and the true length as called
# length; every other PASS line is a false call. PREFIX.polished.fa is compared with the
# truth byte for byte. Targets: called >= 98% of the planted errors 12 deep, >= 95% 6-8 and 4
# deep, >= 90% 3 deep; <= 1 false call per 10 kb in every set, <= 0.3 per 10 kb over all the
# scenarios; polished = truth in every set of the 12-deep scenarios without wild values. At
# 12 deep the model the checker fitted (PREFIX.flowcheck.model.tsv) is held against the one
# the flows were drawn from (NAME.truth_model.tsv): for lengths 1 to 5 of each SFF file, the
# centre within 0.05 and the spread within 20%. The errors missed and the false calls, a few
# of each per scenario, are listed below the tables, with what a run with --all says of the
# run. Sets are made and checked two at a time.
#
# Speed: the data set of bench/run.sh (200,000 reads, generated once into DIR/n200000, DIR
# default /tmp/sorvexa-bench), K runs (default 5) each of Sorvexa -f and sorvexa-flowcheck,
# in turn, from the page cache; medians of the wall time and peak RSS (GNU time). Targets:
# flowcheck <= 2 x Sorvexa -f in time, its peak RSS within the budget Sorvexa is held to
# (bench/run.sh: 16 MiB + 96 B per read of the set) plus 16 MiB (the check adds one contig's
# runs to the read index, so its memory grows with the largest contig, not with the run).
#
# --through bam takes every set (and the speed data set) the way a user with SFF files and a
# reference goes: the reads through sorvexa-sff2bam, samtools fastq -T FZ,ZF,RG, minimap2 -y
# -ax sr against the set's consensus as the ACE file has it (planted errors and all, from
# the ACE run's PREFIX.consensus.fa), samtools sort and index; then sorvexa-flowcheck --bam
# --ref on that, scored against the same truth with the same targets. Speed then times the
# BAM run against the ACE run of sorvexa-flowcheck (target: within 2 times).
#
# The bench preset (build/bench) is built with the targets needed, unless --build names
# another configured build tree to take them from.
set -euo pipefail

seeds=5
runs=5
through=ace
data=/tmp/sorvexa-bench
build=
only=
picked=

usage() {
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "${BASH_SOURCE[0]}"
}

while (($# > 0)); do
    case "$1" in
        --seeds) seeds=${2:?--seeds needs a number}; shift 2 ;;
        --runs) runs=${2:?--runs needs a number}; shift 2 ;;
        --data) data=${2:?--data needs a directory}; shift 2 ;;
        --build) build=${2:?--build needs a directory}; shift 2 ;;
        --only) only=${2:?--only needs accuracy or speed}; shift 2 ;;
        --scenarios) picked=${2:?--scenarios needs a comma-separated list}; shift 2 ;;
        --through) through=${2:?--through needs ace or bam}; shift 2 ;;
        -h | --help) usage; exit 0 ;;
        *) echo "flowcheck.sh: unknown argument $1" >&2; usage >&2; exit 2 ;;
    esac
done
[[ $seeds =~ ^[0-9]+$ && $seeds -gt 0 ]] || { echo "flowcheck.sh: --seeds takes a positive number" >&2; exit 2; }
[[ $runs =~ ^[0-9]+$ && $runs -gt 0 ]] || { echo "flowcheck.sh: --runs takes a positive number" >&2; exit 2; }
[[ -z $only || $only == accuracy || $only == speed ]] || { echo "flowcheck.sh: --only takes accuracy or speed" >&2; exit 2; }
[[ $through == ace || $through == bam ]] || { echo "flowcheck.sh: --through takes ace or bam" >&2; exit 2; }
if [[ $through == bam ]]; then
    for t in samtools minimap2; do
        command -v $t >/dev/null || { echo "flowcheck.sh: --through bam needs $t" >&2; exit 1; }
    done
fi

# Scenario NAME|DEPTH|POLISH|OPTIONS: DEPTH is the depth the called share is judged at (7
# for 6-8), POLISH whether every set's polished consensus must be the truth, OPTIONS those of
# sim_assembly.
contigs=2
length=15000
errors=40
scenarios=(
    "gauss-12|12|yes|--family gauss --depth 12 --noise 1.0"
    "skew-12|12|yes|--family skew --depth 12 --noise 1.0"
    "heavy-12|12|yes|--family heavy --depth 12 --noise 1.0"
    "mixed-12|12|yes|--family mixed --depth 12 --noise 1.0"
    "mixed-wild0.2-12|12|no|--family mixed --depth 12 --noise 1.0 --wild 0.002"
    "mixed-wild2-12|12|no|--family mixed --depth 12 --noise 1.0 --wild 0.02"
    "mixed-wild2-7|7|no|--family mixed --depth 6-8 --noise 1.0 --wild 0.02"
    "mixed-0.6x-7|7|no|--family mixed --depth 6-8 --noise 0.6"
    "mixed-2x-7|7|no|--family mixed --depth 6-8 --noise 2.0"
    "mixed-2x-12|12|yes|--family mixed --depth 12 --noise 2.0"
    "mixed-long-12|12|yes|--family mixed --depth 12 --noise 1.0 --long-runs"
    "mixed-2files-12|12|yes|--family mixed --depth 12 --files 2 --noise 0.7 --noise2 1.6"
    "mixed-2files-7|7|no|--family mixed --depth 6-8 --files 2 --noise 0.7 --noise2 1.6"
    "clean-4|4|no|--family skew --depth 4 --noise 0.8"
    "clean-3|3|no|--family skew --depth 3 --noise 0.8"
)
if [[ -n $picked ]]; then
    chosen=()
    IFS=, read -ra names <<<"$picked"
    for name in "${names[@]}"; do
        found=
        for entry in "${scenarios[@]}"; do
            if [[ ${entry%%|*} == "$name" ]]; then
                chosen+=("$entry")
                found=1
            fi
        done
        [[ -n $found ]] || { echo "flowcheck.sh: no scenario $name" >&2; exit 2; }
    done
    scenarios=("${chosen[@]}")
fi

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
eval_py=$root/bench/flowcheck_eval.py
targets=(Sorvexa sorvexa-flowcheck sim_assembly make_dataset)
[[ $through == ace ]] || targets+=(sorvexa-sff2bam)

if [[ $only != accuracy && ! -x /usr/bin/time ]]; then
    if [[ $(id -u) -eq 0 ]]; then
        apt-get install -y time >/dev/null
    else
        echo "flowcheck.sh: needs GNU time as /usr/bin/time (Debian package 'time')" >&2
        exit 1
    fi
fi

if [[ -z $build ]]; then
    echo "== building (preset bench)"
    (
        cd "$root"
        cmake --preset bench >/dev/null
        cmake --build --preset bench -j 2 --target "${targets[@]}"
    )
    build=$root/build/bench
else
    build=$(cd "$build" && pwd)
    echo "== building in $build"
    cmake --build "$build" -j 2 --target "${targets[@]}"
fi
tool=$build/Sorvexa
sim=$build/tests/support/sim_assembly
make_dataset=$build/examples/make_dataset
flowcheck=$build/flowcheck/sorvexa-flowcheck
[[ -x $flowcheck ]] || flowcheck=$build/sorvexa-flowcheck
sff2bam=$build/sff2bam/sorvexa-sff2bam
[[ -x $sff2bam || $through == ace ]] || sff2bam=$build/sorvexa-sff2bam
for b in "$tool" "$sim" "$make_dataset" "$flowcheck"; do
    [[ -x $b ]] || { echo "flowcheck.sh: $b was not built" >&2; exit 1; }
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# run_or_fail LOG CMD...: runs CMD with its output in LOG; on failure shows LOG and stops.
run_or_fail() {
    local log=$1
    shift
    if ! "$@" >"$log" 2>&1; then
        echo "flowcheck.sh: failed: $*" >&2
        cat "$log" >&2
        exit 1
    fi
}

# make_set DIR SEED OPTIONS...: simulates a set into DIR, checks it, runs the checker on it
# (PREFIX DIR/fc, and DIR/all with --all), and leaves DIR/done when all went well. Output in
# DIR/*.log.
make_set() {
    local dir=$1 seed=$2
    shift 2
    run_or_fail "$dir.log" "$sim" --out "$dir" --prefix sim --contigs $contigs \
        --length $length --errors $errors --seed "$seed" "$@"
    local sffs=("$dir/sim.sff")
    [[ ! -f $dir/sim_b.sff ]] || sffs+=("$dir/sim_b.sff")
    run_or_fail "$dir/check.log" python3 "$eval_py" check-sim "$dir" sim
    run_or_fail "$dir/check.log" "$tool" -f "$dir/sim.ace" "${sffs[@]}"
    run_or_fail "$dir/check.log" python3 "$eval_py" check-records "$dir/sim.ace" "$dir/sim.reads"
    run_or_fail "$dir/fc.log" "$flowcheck" "$dir/sim.ace" "${sffs[@]}" -o "$dir/fc"
    run_or_fail "$dir/all.log" "$flowcheck" --all "$dir/sim.ace" "${sffs[@]}" -o "$dir/all"
    if [[ $through == bam ]]; then
        align "$dir/fc.consensus.fa" "$dir/aln.bam" "$dir/align.log" 2 "${sffs[@]}"
        run_or_fail "$dir/bam.log" "$flowcheck" --bam "$dir/aln.bam" --ref "$dir/fc.consensus.fa" -o "$dir/bam"
        run_or_fail "$dir/bamall.log" "$flowcheck" --all --bam "$dir/aln.bam" --ref "$dir/fc.consensus.fa" -o "$dir/bamall"
    fi
    : >"$dir/done"
}

# align REF OUT.bam LOG THREADS SFF...: the reads of the SFF files aligned to REF with their
# flowgrams, sorted and indexed, as the README shows it.
align() {
    local ref=$1 out=$2 log=$3 threads=$4
    shift 4
    run_or_fail "$log" "$sff2bam" -o "${out%.bam}.reads.bam" "$@"
    run_or_fail "$log" bash -c "set -o pipefail; samtools fastq -T FZ,ZF,RG '${out%.bam}.reads.bam' 2>/dev/null |
        minimap2 -t $threads -y -ax sr '$ref' - 2>/dev/null | samtools sort -@ $threads -o '$out' - && samtools index '$out'"
}

accuracy() {
    echo "== accuracy: $seeds seeds per scenario, $contigs contigs x $length bases, $errors errors"
    local rows=$scratch/rows details=$scratch/details
    : >"$rows"
    : >"$details"
    local entry label depth polish simopts seed dir sets set
    for entry in "${scenarios[@]}"; do
        IFS='|' read -r label depth polish simopts <<<"$entry"
        sets=()
        for ((seed = 1; seed <= seeds; ++seed)); do
            dir=$scratch/$label/s$seed
            mkdir -p "$scratch/$label"
            while (($(jobs -rp | wc -l) >= 2)); do wait -n || true; done
            # shellcheck disable=SC2086  # the scenario's options are words
            make_set "$dir" "$seed" $simopts &
            if [[ $through == bam ]]; then
                sets+=("$dir/sim:$dir/bam:$dir/bamall")
            else
                sets+=("$dir/sim:$dir/fc:$dir/all")
            fi
        done
        wait
        for set in "${sets[@]}"; do
            [[ -f ${set%%/sim:*}/done ]] || exit 1
        done
        echo "   $label: $(tail -n 1 "$scratch/$label/s1/fc.log")"
        [[ $through == ace ]] || echo "   $label through BAM: $(tail -n 1 "$scratch/$label/s1/bam.log")"
        python3 "$eval_py" score --label "$label" --depth "$depth" --polish "$polish" \
            --bases $((contigs * length)) "${sets[@]}" >"$scratch/score"
        head -n 1 "$scratch/score" >>"$rows"
        if [[ $(wc -l <"$scratch/score") -gt 1 ]]; then
            echo "$label:" >>"$details"
            tail -n +2 "$scratch/score" | sed "s|$scratch/||" >>"$details"
        fi
    done

    echo
    python3 "$eval_py" table "$rows"
    echo
    echo "'worst': the set with the most false calls per 10 kb. 'polished': sets whose"
    echo "PREFIX.polished.fa equals the truth byte for byte, in parentheses where not required."
    if [[ -s $details ]]; then
        echo
        echo "Missed planted errors and false calls (sNUMBER is the seed):"
        cat "$details"
    fi
}

# dataset N: sets dir to DIR/nN, generating the set there unless it is already complete (the
# convention of bench/run.sh, which shares the directory).
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

# measure NAME CMD...: one run, appending "seconds rss_kib" to $scratch/NAME.
measure() {
    local name=$1
    shift
    rm -f "$dir/run.reads" "$dir/run.krv" "$scratch"/fc.*
    sync
    if ! /usr/bin/time -f '%e %M' -o "$scratch/time" "$@" >/dev/null 2>"$scratch/stderr"; then
        echo "flowcheck.sh: failed: $*" >&2
        cat "$scratch/stderr" >&2
        exit 1
    fi
    tail -n 1 "$scratch/time" >>"$scratch/$name"
}

# median FILE COLUMN
median() {
    sort -n -k"$2","$2" "$1" | awk -v c="$2" '{ v[NR] = $c }
        END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

speed() {
    mkdir -p "$data"
    data=$(cd "$data" && pwd)
    dataset 200000
    local sffs=("$dir/run_a.sff" "$dir/run_b.sff")
    echo "== warming the page cache"
    cat "${sffs[@]}" "$dir/run.ace" >/dev/null
    echo "== $runs runs each on 200000 reads ($(du -shc "${sffs[@]}" | tail -1 | cut -f1) of SFF)"
    local i
    if [[ $through == bam ]]; then
        echo "== the reads aligned to the assembly's consensus (once)"
        run_or_fail "$scratch/ref.log" "$flowcheck" "$dir/run.ace" "${sffs[@]}" -o "$scratch/ref"
        align "$scratch/ref.consensus.fa" "$scratch/aln.bam" "$scratch/align.log" 2 "${sffs[@]}"
    fi
    for ((i = 1; i <= runs; ++i)); do
        measure sorvexa "$tool" -f "$dir/run.ace" "${sffs[@]}"
        measure flowcheck "$flowcheck" "$dir/run.ace" "${sffs[@]}" -o "$scratch/fc"
        [[ $through == ace ]] ||
            measure bam "$flowcheck" --bam "$scratch/aln.bam" --ref "$scratch/ref.consensus.fa" -o "$scratch/fc"
        echo "   run $i of $runs done"
    done
    echo "   flowcheck: $(tail -n 1 "$scratch/stderr")"
    rm -f "$dir/run.reads" "$dir/run.krv"

    local ts tf rs rf
    ts=$(median "$scratch/sorvexa" 1)
    tf=$(median "$scratch/flowcheck" 1)
    rs=$(median "$scratch/sorvexa" 2)
    rf=$(median "$scratch/flowcheck" 2)
    echo
    printf '%-20s %10s %10s %10s\n' measure "wall s" "max wall s" "RSS MiB"
    printf '%-20s %10s %10s %10.1f\n' "Sorvexa -f" "$ts" "$(sort -n "$scratch/sorvexa" | tail -1 | cut -d' ' -f1)" \
        "$(awk -v k="$rs" 'BEGIN { print k / 1024 }')"
    printf '%-20s %10s %10s %10.1f\n' "sorvexa-flowcheck" "$tf" "$(sort -n "$scratch/flowcheck" | tail -1 | cut -d' ' -f1)" \
        "$(awk -v k="$rf" 'BEGIN { print k / 1024 }')"
    local time_ratio rss_ratio
    time_ratio=$(awk -v a="$tf" -v b="$ts" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
    rss_ratio=$(awk -v a="$rf" -v n=200000 'BEGIN { printf "%.2f", a / (32 * 1024 + 96 * n / 1024) }')
    echo
    printf '%-48s %7s %9s  %s\n' ratio value target verdict
    printf '%-48s %7s %9s  %s\n' "time flowcheck / Sorvexa -f" "$time_ratio" "<= 2" \
        "$(awk -v v="$time_ratio" 'BEGIN { print (v <= 2 ? "ok" : "OVER") }')"
    printf '%-48s %7s %9s  %s\n' "RSS flowcheck / (16 MiB + 96 B x reads + 16 MiB)" "$rss_ratio" "<= 1" \
        "$(awk -v v="$rss_ratio" 'BEGIN { print (v <= 1 ? "ok" : "OVER") }')"
    if [[ $through == bam ]]; then
        local tb rb bam_ratio
        tb=$(median "$scratch/bam" 1)
        rb=$(median "$scratch/bam" 2)
        bam_ratio=$(awk -v a="$tb" -v b="$tf" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
        printf '%-48s %7s %9s  %s   (%s s, %.1f MiB)\n' "time flowcheck --bam / flowcheck on the ACE file" "$bam_ratio" "<= 2" \
            "$(awk -v v="$bam_ratio" 'BEGIN { print (v <= 2 ? "ok" : "OVER") }')" "$tb" "$(awk -v k="$rb" 'BEGIN { print k / 1024 }')"
    fi
    echo
    echo "Medians of $runs runs; wall times as GNU time gives them (10 ms steps)."
}

[[ $only == speed ]] || accuracy
[[ $only == accuracy ]] || speed
