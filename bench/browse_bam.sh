#!/usr/bin/env bash
# Times sorvexa-browse --bam on a simulated 1 Mb reference at 30x.
#
#   bench/browse_bam.sh [--build DIR] [--data DIR] [--runs K] [--clients C] [--requests R]
#
# Generates (once) a genome with sim_assembly, its reads through sorvexa-sff2bam and samtools
# fastq with their flows in tags, aligned by minimap2 and sorted and indexed by samtools. Then, K times, the time
# from the server's launch to the overview answered; then on one server, once the model is
# fitted, C clients make R requests of random 2,000-column windows in the signals view
# (browse_load), and the server's peak RSS is read after that load and again once the
# background survey (names, disputed runs) has finished. --build DIR is a tree holding
# sorvexa-browse, sim_assembly, sorvexa-sff2bam and browse_load (default: the bench preset's).
set -euo pipefail

data=/tmp/sorvexa-bench/bam1m
runs=3
clients=8
requests=2000
build=
while (($# > 0)); do
    case "$1" in
        --build) build=$(cd "${2:?}" && pwd); shift 2 ;;
        --data) data=${2:?}; shift 2 ;;
        --runs) runs=${2:?}; shift 2 ;;
        --clients) clients=${2:?}; shift 2 ;;
        --requests) requests=${2:?}; shift 2 ;;
        -h | --help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
        *) echo "browse_bam.sh: unknown argument $1" >&2; exit 2 ;;
    esac
done
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [[ -z $build ]]; then
    (cd "$root" && cmake --preset bench >/dev/null &&
        cmake --build --preset bench -j2 --target sorvexa-browse sim_assembly sorvexa-sff2bam browse_load)
    build=$root/build/bench
fi

if [[ ! -f $data/.complete ]]; then
    echo "== simulating 1 Mb at 30x into $data"
    rm -rf "$data" && mkdir -p "$data"
    "$build/tests/support/sim_assembly" --out "$data" --prefix sim --contigs 1 --length 1000000 \
        --depth 30 --seed 7 --errors 50 >/dev/null
    "$build/sff2bam/sorvexa-sff2bam" -o "$data/reads.bam" "$data/sim.sff" 2>/dev/null
    samtools view -H "$data/reads.bam" | grep '^@RG' >"$data/rg.txt"
    samtools fastq -T FZ,ZF,RG "$data/reads.bam" 2>/dev/null |
        minimap2 -t 2 -y -ax sr "$data/sim.truth.fa" - 2>/dev/null |
        sed "1r $data/rg.txt" | samtools sort -@2 -o "$data/aln.bam" - 2>/dev/null
    samtools index "$data/aln.bam"
    samtools faidx "$data/sim.truth.fa"
    touch "$data/.complete"
fi
ref=$(cut -f1 "$data/sim.truth.fa.fai" | head -1)
length=$(cut -f2 "$data/sim.truth.fa.fai" | head -1)
echo "reference $ref, $length bases, $(samtools view -c -F 0x904 "$data/aln.bam") primary alignments"

scratch=$(mktemp -d)
server_pid=
cleanup() {
    [[ -n $server_pid ]] && kill "$server_pid" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT
now_us() { date +%s%6N; }
get() { curl -s --noproxy '*' "http://127.0.0.1:$port$1"; }
# Launch to the overview answered, in seconds.
start_server() {
    local t0 t1
    t0=$(now_us)
    "$build/browse/sorvexa-browse" --port 0 --bam "$data/aln.bam" --ref "$data/sim.truth.fa" \
        >"$scratch/out" 2>&1 &
    server_pid=$!
    until grep -q '127.0.0.1:' "$scratch/out" 2>/dev/null; do sleep 0.001; done
    port=$(grep -o '127.0.0.1:[0-9]*' "$scratch/out" | cut -d: -f2)
    until get / | grep -q '</html>'; do sleep 0.001; done
    t1=$(now_us)
    awk -v us=$((t1 - t0)) 'BEGIN { printf "%.3f\n", us / 1e6 }'
}
stop_server() {
    kill -TERM "$server_pid"
    wait "$server_pid"
    server_pid=
}
for ((i = 1; i <= runs; ++i)); do
    start_server >>"$scratch/start"
    stop_server
done
echo "start-up to the first page (s): $(sort -n "$scratch/start" | tr '\n' ' ')"

start_server >/dev/null
t0=$(now_us)
while get / | grep -q 'being fitted'; do sleep 0.1; done
echo "model fitted $(awk -v us=$(($(now_us) - t0)) 'BEGIN { printf "%.1f", us / 1e6 }') s after the first page"
SORVEXA_LOAD_QUERY='&view=signals' "$build/bench/browse_load" --contig "$ref" "$length" "$port" \
    "$clients" "$requests" 2000
get / | grep -q '<td>...</td>' && echo "(the survey was still running during the load)"
echo "peak RSS after the load: $(awk '/VmHWM/ { printf "%.1f", $2 / 1024 }' "/proc/$server_pid/status") MiB"
while get / | grep -q '<td>...</td>\|being gathered'; do sleep 0.5; done
echo "survey done $(awk -v us=$(($(now_us) - t0)) 'BEGIN { printf "%.1f", us / 1e6 }') s after the first page"
echo "peak RSS after the survey: $(awk '/VmHWM/ { printf "%.1f", $2 / 1024 }' "/proc/$server_pid/status") MiB"
stop_server
