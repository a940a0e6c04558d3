#!/usr/bin/env bash
# Times sorvexa-sff2bam on the benchmark data set against the cost of compressing the same
# records and against Biopython converting the same reads to FASTQ.
#
#   bench/sff2bam.sh [--reads N] [--data DIR] [--runs K]
#
# Builds sorvexa-sff2bam (and make_dataset) in the bench preset (a release build), generates the
# data set as bench/run.sh does (two SFF files, one in each byte order; kept in DIR/nN for
# later runs) and measures, K times each, in turn, from the page cache, the outputs written
# beside the data:
#   sff2bam           sorvexa-sff2bam -o out.bam run_a.sff run_b.sff (BAM at htslib's default
#                     level, no extra thread)
#   samtools view -b  samtools view -b -o again.bam out.bam: the same records compressed again
#                     (its reading and decompressing come on top)
#   Biopython         /usr/bin/python3: SeqIO.convert("run_a.sff", "sff", "a.fastq", "fastq"),
#                     the interpreter's start included. Biopython reads only big-endian SFF, so
#                     this and the next three use run_a.sff (half the reads); every called base
#                     is written, so sorvexa-sff2bam runs with --untrimmed there
#   sff2bam -u        --untrimmed -u -o a.bam run_a.sff (uncompressed BAM into a file)
#   sff2bam -o -      --untrimmed -o - run_a.sff > a.bam (uncompressed BAM on standard output,
#                     every file read through once before the first byte is written)
#   sff2bam (BAM)     --untrimmed -o a.bam run_a.sff (compressed BAM)
# It prints the medians and the ratios sorvexa-sff2bam is held to: at most 1.5 times samtools
# view -b, at least 10 times faster than Biopython.
set -euo pipefail

reads=200000
data=/tmp/sorvexa-bench
runs=3
python=/usr/bin/python3

usage() {
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "${BASH_SOURCE[0]}"
}

while (($# > 0)); do
    case "$1" in
        --reads) reads=${2:?--reads needs a number}; shift 2 ;;
        --data) data=${2:?--data needs a directory}; shift 2 ;;
        --runs) runs=${2:?--runs needs a number}; shift 2 ;;
        -h | --help) usage; exit 0 ;;
        *) echo "sff2bam.sh: unknown argument $1" >&2; usage >&2; exit 2 ;;
    esac
done
[[ $reads =~ ^[0-9]+$ && $reads -gt 0 ]] || { echo "sff2bam.sh: --reads takes a positive number" >&2; exit 2; }
[[ $runs =~ ^[0-9]+$ && $runs -gt 0 ]] || { echo "sff2bam.sh: --runs takes a positive number" >&2; exit 2; }

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
mkdir -p "$data"
data=$(cd "$data" && pwd)

packages=()
[[ -x /usr/bin/time ]] || packages+=(time)
command -v samtools >/dev/null 2>&1 || packages+=(samtools)
$python -c "import Bio.SeqIO" 2>/dev/null || packages+=(python3-biopython)
if ((${#packages[@]} > 0)); then
    if [[ $(id -u) -eq 0 ]]; then
        apt-get install -y "${packages[@]}" >/dev/null
    else
        echo "sff2bam.sh: needs ${packages[*]} (Debian packages)" >&2
        exit 1
    fi
fi

echo "== building (preset bench)"
(
    cd "$root"
    cmake --preset bench >/dev/null
    cmake --build --preset bench --target sorvexa-sff2bam make_dataset
)
build=$root/build/bench
tool=$build/sff2bam/sorvexa-sff2bam

dir=$data/n$reads
if [[ ! -f $dir/.complete ]]; then
    echo "== generating $reads reads into $dir"
    rm -rf "$dir"
    "$build/examples/make_dataset" --reads "$reads" --seed 1 --out "$dir" --prefix run
    printf 'AS 0 0\n' >"$dir/empty.ace"
    touch "$dir/.complete"
fi
a=$dir/run_a.sff
b=$dir/run_b.sff
out=$dir/sff2bam.out
mkdir -p "$out"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch" "$out"' EXIT

# measure NAME CMD...: one timed run (wall, peak RSS, user, system), appended to
# $scratch/NAME. Standard output goes to $out/stdout. The files of earlier runs other than
# out.bam are removed and flushed first, so that no run pays for another's write-back.
measure() {
    local name=$1
    shift
    rm -f "$out"/a.* "$out"/again.bam "$out"/stdout
    sync
    local t0 t1
    t0=${EPOCHREALTIME/[.,]/}
    if ! /usr/bin/time -v -o "$scratch/time" "$@" >"$out/stdout" 2>"$scratch/stderr"; then
        echo "sff2bam.sh: failed: $*" >&2
        cat "$scratch/stderr" >&2
        exit 1
    fi
    t1=${EPOCHREALTIME/[.,]/}
    awk -F': ' -v us=$((t1 - t0)) '
        /Maximum resident set size/ { rss = $2 }
        /User time \(seconds\)/ { user = $2 }
        /System time \(seconds\)/ { sys = $2 }
        END { print us, rss, user, sys }' "$scratch/time" >>"$scratch/$name"
    local size=0
    for f in "$out"/a.* "$out"/again.bam "$out"/stdout; do
        [[ -s $f ]] && size=$(stat -c %s "$f")
    done
    [[ $name == sff2bam ]] && size=$(stat -c %s "$out/out.bam")
    echo "$size" >"$scratch/$name.out"
}

median() {
    sort -n -k"$2","$2" "$1" | awk -v c="$2" '{ v[NR] = $c }
        END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
seconds() { awk -v us="$(median "$scratch/$1" 1)" 'BEGIN { printf "%.3f", us / 1e6 }'; }
cpu() { awk -v s="$(median "$scratch/$1" "$2")" 'BEGIN { printf "%.2f", s }'; }
rss_mib() { awk -v k="$(median "$scratch/$1" 2)" 'BEGIN { printf "%.1f", k / 1024 }'; }
out_mib() { awk -v b="$(cat "$scratch/$1.out")" 'BEGIN { printf "%.1f", b / 1048576 }'; }

convert='import sys
from Bio import SeqIO
SeqIO.convert(sys.argv[1], "sff", sys.argv[2], "fastq")'

cat "$a" "$b" >/dev/null
echo "== $runs runs of each measure"
for ((i = 1; i <= runs; ++i)); do
    measure sff2bam "$tool" -o "$out/out.bam" "$a" "$b"
    measure samtools samtools view -b -o "$out/again.bam" "$out/out.bam"
    measure biopython $python -c "$convert" "$a" "$out/a.fastq"
    measure uncompressed "$tool" --untrimmed -u -o "$out/a.bam" "$a"
    measure stdout "$tool" --untrimmed -o - "$a"
    measure compressed "$tool" --untrimmed -o "$out/a.bam" "$a"
done

printf '\n%-40s %8s %8s %8s %8s %8s\n' measure "wall s" "user s" "sys s" "RSS MiB" "out MiB"
row() {
    printf '%-40s %8s %8s %8s %8s %8s\n' "$2" "$(seconds "$1")" "$(cpu "$1" 3)" "$(cpu "$1" 4)" \
        "$(rss_mib "$1")" "$(out_mib "$1")"
}
row sff2bam "sorvexa-sff2bam -o out.bam a b"
row samtools "samtools view -b out.bam"
row biopython "Biopython SeqIO.convert a -> FASTQ"
row uncompressed "sorvexa-sff2bam --untrimmed -u a"
row stdout "sorvexa-sff2bam --untrimmed -o - a"
row compressed "sorvexa-sff2bam --untrimmed -o a.bam a"

ratio() { awk -v x="$(median "$scratch/$1" 1)" -v y="$(median "$scratch/$2" 1)" 'BEGIN { printf "%.2f", x / y }'; }
verdict() { awk -v v="$1" -v l="$2" -v d="$3" 'BEGIN { print ((d == "<=" ? v <= l : v >= l) ? "ok" : "not met") }'; }
printf '\n%-40s %8s %8s\n' ratio value target
r=$(ratio sff2bam samtools)
printf '%-40s %8s %8s  %s\n' "sff2bam / samtools view -b" "$r" "<= 1.5" "$(verdict "$r" 1.5 "<=")"
for m in uncompressed stdout compressed; do
    r=$(ratio biopython "$m")
    printf '%-40s %8s %8s  %s\n' "Biopython / sff2bam ($m)" "$r" ">= 10" "$(verdict "$r" 10 ">=")"
done
