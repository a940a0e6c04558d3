#!/usr/bin/env bash
# Times the Python module against Biopython doing the same work, on the benchmark data set.
#
#   bench/python.sh [--reads N] [--data DIR] [--runs K] [--build DIR]
#
# Builds the module, Sorvexa and make_dataset in DIR (default: the bench preset's
# build/bench), generates the data set as bench/run.sh does (kept in DIR/nN for later runs)
# and measures, K times each, in turn, with /usr/bin/python3 (Debian's, which the packages
# python3-biopython and python3-numpy serve):
#   iterate   every record of run_a.sff in file order, its flowgram and qualities read:
#             sorvexa.SffFile against Bio.SeqIO.parse(path, "sff")
#   index     the read index built, then every read fetched by name, the names in shuffled
#             order (as users look reads up), and its flowgram read: SffFile.index() and
#             f[name] one at a time against Bio.SeqIO.index(path, "sff") and its records
#   batch     the same names fetched at once, SffFile.fetch(names) into one array of
#             flowgrams, against the same Biopython loop
#   RSS       peak RSS of the read indexes of both SFF files: Python (sorvexa imported, both
#             indexes built) against Sorvexa indexing the same files for an empty ACE file;
#             the interpreter with the module imported and nothing else for reference
# Biopython reads only big-endian SFF, so the timed comparisons use run_a.sff (half the
# reads); the times leave out the interpreter's start and the imports. Medians are printed
# with the ratios the module is held to.
set -euo pipefail

reads=200000
data=/tmp/sorvexa-bench
runs=5
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/bench
python=/usr/bin/python3

usage() {
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "${BASH_SOURCE[0]}"
}

while (($# > 0)); do
    case "$1" in
        --reads) reads=${2:?--reads needs a number}; shift 2 ;;
        --data) data=${2:?--data needs a directory}; shift 2 ;;
        --runs) runs=${2:?--runs needs a number}; shift 2 ;;
        --build) build=${2:?--build needs a directory}; shift 2 ;;
        -h | --help) usage; exit 0 ;;
        *) echo "python.sh: unknown argument $1" >&2; usage >&2; exit 2 ;;
    esac
done
[[ $reads =~ ^[0-9]+$ && $reads -gt 0 ]] || { echo "python.sh: --reads takes a positive number" >&2; exit 2; }
[[ $runs =~ ^[0-9]+$ && $runs -gt 0 ]] || { echo "python.sh: --runs takes a positive number" >&2; exit 2; }
mkdir -p "$data" "$build"
data=$(cd "$data" && pwd)
build=$(cd "$build" && pwd)

packages=()
[[ -x /usr/bin/time ]] || packages+=(time)
[[ -x $python ]] || packages+=(python3)
$python -c "import numpy" 2>/dev/null || packages+=(python3-numpy)
$python -c "import Bio.SeqIO" 2>/dev/null || packages+=(python3-biopython)
[[ -f /usr/include/pybind11/pybind11.h ]] || packages+=(pybind11-dev)
$python -c "import sysconfig, os, sys; sys.exit(not os.path.exists(sysconfig.get_paths()['include'] + '/Python.h'))" 2>/dev/null ||
    packages+=(python3-dev)
if ((${#packages[@]} > 0)); then
    if [[ $(id -u) -eq 0 ]]; then
        apt-get install -y "${packages[@]}" >/dev/null
    else
        echo "python.sh: needs ${packages[*]} (Debian packages)" >&2
        exit 1
    fi
fi

echo "== building in $build"
(
    cd "$root"
    if [[ $build == "$root/build/bench" ]]; then
        cmake --preset bench >/dev/null
    else
        cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
            -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DSORVEXA_WERROR=ON >/dev/null
    fi
    cmake --build "$build" --target sorvexa_python Sorvexa make_dataset
)
[[ -f $build/python/sorvexa/__init__.py ]] || { echo "python.sh: the module was not configured" >&2; exit 1; }
export PYTHONPATH=$build/python

dir=$data/n$reads
if [[ ! -f $dir/.complete ]]; then
    echo "== generating $reads reads into $dir"
    rm -rf "$dir"
    "$build/examples/make_dataset" --reads "$reads" --seed 1 --out "$dir" --prefix run
    printf 'AS 0 0\n' >"$dir/empty.ace"
    touch "$dir/.complete"
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
bench=$root/bench/python_bench.py

# measure NAME: one run of python_bench.py, its seconds appended to $scratch/NAME; the
# checksum must agree with the other side's.
measure() {
    local out
    out=$($python "$bench" "$1" "$dir/run_a.sff" 2>"$scratch/err") || { cat "$scratch/err" >&2; exit 1; }
    echo "${out% *}" >>"$scratch/$1"
    echo "${out#* }" >>"$scratch/$1.sum"
}

# peak NAME COMMAND...: the peak RSS (KiB) of a command, appended to $scratch/NAME.
peak() {
    local name=$1
    shift
    /usr/bin/time -f %M -o "$scratch/time" "$@" >/dev/null 2>&1
    cat "$scratch/time" >>"$scratch/$name"
}

echo "== $runs runs of each measure"
for ((run = 1; run <= runs; run++)); do
    for m in iterate-sorvexa iterate-biopython index-sorvexa index-biopython batch-sorvexa; do
        measure "$m"
    done
    peak rss-python $python "$bench" index-only "$dir/run_a.sff" "$dir/run_b.sff"
    peak rss-cxx "$build/Sorvexa" "$dir/empty.ace" "$dir/run_a.sff" "$dir/run_b.sff"
    peak rss-import $python -c "import sorvexa"
    echo "   run $run done"
done

for pair in "iterate-sorvexa iterate-biopython" "index-sorvexa index-biopython" \
    "batch-sorvexa index-biopython"; do
    set -- $pair
    if [[ $(sort -u "$scratch/$1.sum" "$scratch/$2.sum" | wc -l) -ne 1 ]]; then
        echo "python.sh: $1 and $2 did different work (checksums differ)" >&2
        exit 1
    fi
done

median() { sort -g "$scratch/$1" | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

records=$($python -c "import sorvexa, sys; print(sorvexa.SffFile(sys.argv[1]).number_of_reads)" "$dir/run_a.sff")
calc() { awk "BEGIN { printf \"%.3f\", $1 }"; }
printf '\n%-40s %10s %12s\n' "measure (run_a.sff, $records reads)" "median s" "us/read"
for m in iterate-sorvexa iterate-biopython index-sorvexa index-biopython batch-sorvexa; do
    s=$(median "$m")
    printf '%-40s %10.3f %12.2f\n' "$m" "$s" "$(calc "$s * 1000000 / $records")"
done
printf '\n%-40s %10s\n' "peak RSS (both files, $reads reads)" "MiB"
for m in rss-python rss-cxx rss-import; do
    printf '%-40s %10.1f\n' "$m" "$(calc "$(median "$m") / 1024")"
done

ratio() { calc "$(median "$1") / $(median "$2")"; }
printf '\n%-40s %10s %10s\n' ratio value target
printf '%-40s %10.2f %10s\n' "iterate: Biopython / sorvexa" "$(ratio iterate-biopython iterate-sorvexa)" ">= 5"
printf '%-40s %10.2f %10s\n' "index + fetch: Biopython / sorvexa" "$(ratio index-biopython index-sorvexa)" ">= 5"
printf '%-40s %10.2f %10s\n' "index + batch: Biopython / sorvexa" "$(ratio index-biopython batch-sorvexa)" ">= 10"
printf '%-40s %10.2f %10s\n' "index peak RSS: Python / C++" "$(ratio rss-python rss-cxx)" "<= 2"
