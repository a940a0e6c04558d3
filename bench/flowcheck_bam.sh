#!/usr/bin/env bash
# sorvexa-flowcheck through alignments (--bam) against the same check through the ACE file.
#
#   bench/flowcheck_bam.sh [--seeds K] [--runs K] [--data DIR] [--build DIR]
#                          [--only accuracy|speed] [--scenarios NAME,NAME,...]
#
# Accuracy: for seeds 1..K (default 3) of each scenario, sim_assembly writes an assembly of
# known truth (2 contigs x 15,000 bases, 40 errors planted in the consensus; the scenarios are
# bench/flowcheck.sh's, and --scenarios picks among them). The ACE path runs as there; then the
# consensus it read (PREFIX.consensus.fa, planted errors and all) becomes the reference, the
# reads go the README's way: sorvexa-sff2bam (one read group per file, the flows in FZ and
# ZF), samtools fastq -T FZ,ZF,RG, minimap2 -y -ax sr, samtools sorts and indexes, and
# sorvexa-flowcheck --bam checks the reference. flowcheck_eval.py scores both the same way;
# targets: the BAM path's called share and false calls as the ACE path's, polished = truth in
# every set of the 12-deep scenarios without wild values.
#
# Speed: bench/run.sh's 200,000-read data set (DIR/n200000, DIR default /tmp/sorvexa-bench),
# aligned once in the same way to the consensus of its ACE file, then K runs (default 3) each
# of sorvexa-flowcheck on the ACE file and on the BAM, in turn; medians of wall time, CPU time
# and peak RSS (GNU time). Target: the BAM path within 2 x the ACE path's time.
set -euo pipefail

seeds=3
runs=3
data=/tmp/sorvexa-bench
build=
only=
picked=gauss-12,skew-12,mixed-12,mixed-2x-12,mixed-2files-12,mixed-wild2-12,mixed-2x-7,clean-4
while (($# > 0)); do
    case "$1" in
        --seeds) seeds=${2:?}; shift 2 ;;
        --runs) runs=${2:?}; shift 2 ;;
        --data) data=${2:?}; shift 2 ;;
        --build) build=${2:?}; shift 2 ;;
        --only) only=${2:?}; shift 2 ;;
        --scenarios) picked=${2:?}; shift 2 ;;
        -h | --help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
        *) echo "flowcheck_bam.sh: unknown argument $1" >&2; exit 2 ;;
    esac
done
for tool in minimap2 samtools /usr/bin/time; do
    command -v "$tool" >/dev/null || { echo "flowcheck_bam.sh: needs $tool" >&2; exit 1; }
done

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
eval_py=$root/bench/flowcheck_eval.py
targets=(sorvexa-flowcheck sim_assembly sorvexa-sff2bam)
if [[ -z $build ]]; then
    (cd "$root" && cmake --preset bench >/dev/null && cmake --build --preset bench -j 2 --target "${targets[@]}")
    build=$root/build/bench
else
    build=$(cd "$build" && pwd)
    cmake --build "$build" -j 2 --target "${targets[@]}"
fi
flowcheck=$build/flowcheck/sorvexa-flowcheck
sim=$build/tests/support/sim_assembly
sff2bam=$build/sff2bam/sorvexa-sff2bam
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# align OUT REF SFF...: OUT.bam, sorted and indexed, one read group per SFF file; the
# groups' header lines come back from the unaligned BAM, as the README shows.
align() {
    local out=$1 ref=$2
    shift 2
    "$sff2bam" -o "$out.reads.bam" "$@" 2>/dev/null
    samtools view -H "$out.reads.bam" | grep '^@RG' >"$out.rg"
    samtools fastq -T FZ,ZF,RG "$out.reads.bam" 2>/dev/null |
        minimap2 -t 2 -y -ax sr "$ref" - 2>/dev/null | sed "1r $out.rg" |
        samtools sort -@ 1 -m 500M -o "$out.bam" - 2>/dev/null
    samtools index "$out.bam"
    rm -f "$out.reads.bam"
}

# Scenario NAME|DEPTH|POLISH|OPTIONS, as bench/flowcheck.sh has them.
declare -A scenario=(
    [gauss-12]="12|yes|--family gauss --depth 12 --noise 1.0"
    [skew-12]="12|yes|--family skew --depth 12 --noise 1.0"
    [mixed-12]="12|yes|--family mixed --depth 12 --noise 1.0"
    [mixed-2x-12]="12|yes|--family mixed --depth 12 --noise 2.0"
    [mixed-2files-12]="12|yes|--family mixed --depth 12 --files 2 --noise 0.7 --noise2 1.6"
    [mixed-wild2-12]="12|no|--family mixed --depth 12 --noise 1.0 --wild 0.02"
    [mixed-2x-7]="7|no|--family mixed --depth 6-8 --noise 2.0"
    [clean-4]="4|no|--family skew --depth 4 --noise 0.8"
)

accuracy() {
    local rows_ace=$scratch/rows_ace rows_bam=$scratch/rows_bam rows_name=$scratch/rows_name
    : >"$rows_ace"
    : >"$rows_bam"
    : >"$rows_name"
    IFS=, read -ra names <<<"$picked"
    for label in "${names[@]}"; do
        [[ -n ${scenario[$label]:-} ]] || { echo "no scenario $label" >&2; exit 2; }
        IFS='|' read -r depth polish simopts <<<"${scenario[$label]}"
        local ace_sets=() bam_sets=() name_sets=()
        for ((seed = 1; seed <= seeds; ++seed)); do
            dir=$scratch/$label/s$seed
            mkdir -p "$dir"
            # shellcheck disable=SC2086  # the scenario's options are words
            "$sim" --out "$dir" --prefix sim --contigs 2 --length 15000 --errors 40 \
                --seed "$seed" $simopts >"$dir/sim.log" 2>&1
            sffs=("$dir/sim.sff")
            [[ ! -f $dir/sim_b.sff ]] || sffs+=("$dir/sim_b.sff")
            "$flowcheck" "$dir/sim.ace" "${sffs[@]}" -o "$dir/fc" 2>"$dir/fc.log"
            "$flowcheck" --all "$dir/sim.ace" "${sffs[@]}" -o "$dir/all" 2>/dev/null
            align "$dir/aln" "$dir/fc.consensus.fa" "${sffs[@]}"
            "$flowcheck" --bam "$dir/aln.bam" --ref "$dir/fc.consensus.fa" -o "$dir/bam" 2>"$dir/bam.log"
            "$flowcheck" --all --bam "$dir/aln.bam" --ref "$dir/fc.consensus.fa" -o "$dir/bamall" 2>/dev/null
            # The same alignments without their flows, tied by name through the SFF files.
            samtools view -b -x FZ -x ZF -o "$dir/bare.bam" "$dir/aln.bam"
            samtools index "$dir/bare.bam"
            "$flowcheck" --bam "$dir/bare.bam" --ref "$dir/fc.consensus.fa" "${sffs[@]}" \
                -o "$dir/name" 2>"$dir/name.log"
            "$flowcheck" --all --bam "$dir/bare.bam" --ref "$dir/fc.consensus.fa" "${sffs[@]}" \
                -o "$dir/nameall" 2>/dev/null
            ace_sets+=("$dir/sim:$dir/fc:$dir/all")
            bam_sets+=("$dir/sim:$dir/bam:$dir/bamall")
            name_sets+=("$dir/sim:$dir/name:$dir/nameall")
        done
        echo "   $label ACE: $(head -n 1 "$scratch/$label/s1/fc.log")"
        echo "   $label BAM: $(head -n 1 "$scratch/$label/s1/bam.log")"
        echo "   $label BAM, by name: $(head -n 1 "$scratch/$label/s1/name.log")"
        local path
        for path in ace bam name; do
            local -n sets=${path}_sets
            python3 "$eval_py" score --label "$label" --depth "$depth" --polish "$polish" \
                --bases 30000 "${sets[@]}" >"$scratch/score" || true
            head -n 1 "$scratch/score" >>"$scratch/rows_$path"
        done
    done
    echo
    echo "== ACE path"
    python3 "$eval_py" table "$rows_ace"
    echo
    echo "== BAM path (reads aligned with minimap2 to the consensus the ACE file holds, FZ/ZF)"
    python3 "$eval_py" table "$rows_bam"
    echo
    echo "== BAM path, the same alignments without FZ/ZF, tied by name through the SFF files"
    python3 "$eval_py" table "$rows_name"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

speed() {
    local set=$data/n200000
    [[ -f $set/.complete ]] || { echo "flowcheck_bam.sh: run bench/run.sh first ($set)" >&2; exit 1; }
    echo "== speed: $set, aligning once"
    "$flowcheck" --sigma-base 0.12 "$set/run.ace" "$set/run_a.sff" "$set/run_b.sff" \
        -o "$scratch/ref" 2>/dev/null
    align "$scratch/run" "$scratch/ref.consensus.fa" "$set/run_a.sff" "$set/run_b.sff"
    for ((i = 0; i < runs; ++i)); do
        /usr/bin/time -f "%e %U %S %M" -a -o "$scratch/ace.times" "$flowcheck" "$set/run.ace" \
            "$set/run_a.sff" "$set/run_b.sff" -o "$scratch/ace" 2>/dev/null
        /usr/bin/time -f "%e %U %S %M" -a -o "$scratch/bam.times" "$flowcheck" \
            --bam "$scratch/run.bam" --ref "$scratch/ref.consensus.fa" -o "$scratch/bam" 2>/dev/null
    done
    for path in ace bam; do
        printf '%s: wall %s s, CPU %s s, peak RSS %s KiB (medians of %d)\n' "$path" \
            "$(awk '{print $1}' "$scratch/$path.times" | median)" \
            "$(awk '{print $2 + $3}' "$scratch/$path.times" | median)" \
            "$(awk '{print $4}' "$scratch/$path.times" | median)" "$runs"
    done
}

[[ $only == speed ]] || accuracy
[[ $only == accuracy ]] || speed
