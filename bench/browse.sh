#!/usr/bin/env bash
# Times sorvexa-browse on the benchmark data set (the one bench/run.sh generates).
#
#   bench/browse.sh [--reads N] [--data DIR] [--runs K] [--clients C] [--requests R]
#                   [--build DIR] [--storm-seconds S] [--depth D] [--storm-only]
#
# Measures, K times each, from the page cache: the index-only run of Sorvexa (an ACE file
# with no contigs), one pass over the ACE file with the library's reader, and the start-up of
# sorvexa-browse (until it prints its address). Then, on one server, C concurrent clients on
# 127.0.0.1 make R requests of random 200-column windows of the deepest contig, and the
# server's own build times (Server-Timing) and the round trips are reported, with the
# server's peak RSS after that load and a second one over random windows of every contig.
#
# Then misbehaving clients for S seconds (default 20) against a server holding one simulated
# contig D reads deep (default 2000, written by browse_load --deep): 200 connections that send
# nothing, 50 that send a request's head a byte a second, 4 that each declare a 300 MB body
# and send it, all reopened when the server closes them, while a 200-column window of the
# deep contig and the overview are fetched every 100 ms. Reported: those pages' round trips
# (each must come within 1 s), errors, and the server's peak RSS against 64 MiB + 96 B per
# indexed read. --storm-only skips everything before; --build DIR uses a build tree that
# holds the targets instead of building the bench preset.
set -euo pipefail

reads=200000
data=/tmp/sorvexa-bench
runs=5
clients=8
requests=2000
build=
storm_seconds=20
depth=2000
storm_only=0

while (($# > 0)); do
    case "$1" in
        --reads) reads=${2:?}; shift 2 ;;
        --data) data=${2:?}; shift 2 ;;
        --runs) runs=${2:?}; shift 2 ;;
        --clients) clients=${2:?}; shift 2 ;;
        --requests) requests=${2:?}; shift 2 ;;
        --build) build=$(cd "${2:?}" && pwd); shift 2 ;;
        --storm-seconds) storm_seconds=${2:?}; shift 2 ;;
        --depth) depth=${2:?}; shift 2 ;;
        --storm-only) storm_only=1; shift ;;
        -h | --help) awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"; exit 0 ;;
        *) echo "browse.sh: unknown argument $1" >&2; exit 2 ;;
    esac
done

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [[ -z $build ]]; then
    echo "== building (preset bench)"
    (
        cd "$root"
        cmake --preset bench >/dev/null
        cmake --build --preset bench -j2 --target Sorvexa sorvexa-browse browse_load make_dataset
    )
    build=$root/build/bench
fi
dir=$data/n$reads
if [[ ! -f $dir/.complete ]]; then
    echo "== generating $reads reads into $dir"
    rm -rf "$dir"
    mkdir -p "$dir"
    "$build/examples/make_dataset" --reads "$reads" --seed 1 --out "$dir" --prefix run
    printf 'AS 0 0\n' >"$dir/empty.ace"
    touch "$dir/.complete"
fi
sffs=("$dir/run_a.sff" "$dir/run_b.sff")
cat "${sffs[@]}" "$dir/run.ace" >/dev/null

scratch=$(mktemp -d)
server_pid=
cleanup() {
    [[ -n $server_pid ]] && kill "$server_pid" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
now_us() { echo "${EPOCHREALTIME/[.,]/}"; }

# start_server [ACE SFF...]: starts sorvexa-browse on a free port (by default on the data
# set); sets server_pid and port, and prints the seconds until the address appeared. Gives up
# after 60 s.
start_server() {
    local t0 t1 i files=("$@")
    ((${#files[@]} > 0)) || files=("$dir/run.ace" "${sffs[@]}")
    : >"$scratch/out"
    t0=$(now_us)
    "$build/browse/sorvexa-browse" --port 0 "${files[@]}" >"$scratch/out" 2>&1 &
    server_pid=$!
    for ((i = 0; i < 60000; ++i)); do
        grep -q 'http://' "$scratch/out" && break
        sleep 0.001
    done
    t1=$(now_us)
    port=$(grep -o '127.0.0.1:[0-9]*' "$scratch/out" | cut -d: -f2)
    [[ -n $port ]] || { echo "browse.sh: the server did not start" >&2; cat "$scratch/out" >&2; exit 1; }
    awk -v us=$((t1 - t0)) 'BEGIN { printf "%.3f\n", us / 1e6 }'
}
stop_server() {
    kill -TERM "$server_pid"
    wait "$server_pid" || { echo "browse.sh: the server did not end cleanly" >&2; exit 1; }
    server_pid=
}

verdict() { awk -v v="$1" -v l="$2" 'BEGIN { print (v <= l ? "ok" : "OVER") }'; }

if ((storm_only == 0)); then
echo "== $runs runs of each start-up measure"
for ((i = 1; i <= runs; ++i)); do
    t0=$(now_us)
    "$build/Sorvexa" "$dir/empty.ace" "${sffs[@]}" >/dev/null
    t1=$(now_us)
    awk -v us=$((t1 - t0)) 'BEGIN { printf "%.3f\n", us / 1e6 }' >>"$scratch/index"
    "$build/bench/browse_load" "$dir/run.ace" | awk '{ print $2 }' >>"$scratch/ace"
    start_server >>"$scratch/start"
    stop_server
done
rm -f "$dir/empty.reads" "$dir/empty.krv"

index=$(median <"$scratch/index")
ace=$(median <"$scratch/ace")
start=$(median <"$scratch/start")
budget=$(awk -v i="$index" -v a="$ace" 'BEGIN { printf "%.3f", 2 * i + a }')

echo "== $clients clients, $requests random 200-column windows of the deepest contig"
start_server >/dev/null
"$build/bench/browse_load" "$dir/run.ace" "$port" "$clients" "$requests" 200 | tee "$scratch/load"
rss_load=$(awk '/VmHWM/ { printf "%.1f", $2 / 1024 }' "/proc/$server_pid/status")
# Then windows of every contig and read pages, so that the contig cache turns over.
contigs=$(grep -o '121 contigs\|[0-9]* contigs' "$scratch/out" | head -1 | cut -d' ' -f1)
for ((k = 1; k <= 60; ++k)); do
    c=$(( (k * 37) % contigs + 1 ))
    curl -s -o /dev/null "http://127.0.0.1:$port/contig/Contig$c?from=$((1 + k * 101))&width=500" || true
done
rss=$(awk '/VmHWM/ { printf "%.1f", $2 / 1024 }' "/proc/$server_pid/status")
stop_server

server_median=$(awk '/^server_ms/ { print $3 }' "$scratch/load")
server_p99=$(awk '/^server_ms/ { print $5 }' "$scratch/load")
errors=$(awk '/^requests/ { print $4 }' "$scratch/load")
rss_budget=$(awk -v n="$reads" 'BEGIN { printf "%.1f", 64 + 96 * n / 1048576 }')

echo
printf '%-44s %9s %9s  %s\n' measure value target verdict
printf '%-44s %9s\n' "Sorvexa index only (s, median)" "$index"
printf '%-44s %9s\n' "one ACE pass with the library (s, median)" "$ace"
printf '%-44s %9s %9s  %s\n' "sorvexa-browse start-up (s, median)" "$start" "<= $budget" "$(verdict "$start" "$budget")"
printf '%-44s %9s %9s  %s\n' "contig page, server ms, median" "$server_median" "<= 20" "$(verdict "$server_median" 20)"
printf '%-44s %9s %9s  %s\n' "contig page, server ms, p99" "$server_p99" "<= 100" "$(verdict "$server_p99" 100)"
printf '%-44s %9s %9s  %s\n' "errors" "$errors" "0" "$(verdict "$errors" 0)"
printf '%-44s %9s\n' "peak RSS after the deepest-contig load (MiB)" "$rss_load"
printf '%-44s %9s %9s  %s\n' "peak RSS after every contig (MiB)" "$rss" "<= $rss_budget" "$(verdict "$rss" "$rss_budget")"
fi

deep=$data/deep$depth
if [[ ! -f $deep/.complete ]]; then
    echo "== writing a contig $depth reads deep into $deep"
    rm -rf "$deep"
    mkdir -p "$deep"
    "$build/bench/browse_load" --deep "$deep" "$depth"
    touch "$deep/.complete"
fi
echo "== $storm_seconds s of misbehaving clients against a contig $depth reads deep"
start_server "$deep/deep.ace" "$deep/deep.sff" >/dev/null
indexed=$(grep -o '[0-9]* reads indexed' "$scratch/out" | cut -d' ' -f1)
contig=$(awk '/^CO / { print $2; exit }' "$deep/deep.ace")
"$build/bench/browse_load" --storm "$port" "/contig/$contig?from=201&width=200" "$storm_seconds" |
    tee "$scratch/storm" || true
storm_rss=$(awk '/VmHWM/ { printf "%.1f", $2 / 1024 }' "/proc/$server_pid/status")
stop_server

storm_budget=$(awk -v n="$indexed" 'BEGIN { printf "%.1f", 64 + 96 * n / 1048576 }')
page_max=$(awk '/^storm_page_ms/ { print $5 }' "$scratch/storm")
overview_max=$(awk '/^storm_overview_ms/ { print $5 }' "$scratch/storm")
storm_errors=$(awk '/^storm_requests/ { print $4 }' "$scratch/storm")
echo
printf '%-44s %9s %9s  %s\n' measure value target verdict
printf '%-44s %9s %9s  %s\n' "deep window under the storm, slowest ms" "$page_max" "<= 1000" "$(verdict "$page_max" 1000)"
printf '%-44s %9s %9s  %s\n' "overview under the storm, slowest ms" "$overview_max" "<= 1000" "$(verdict "$overview_max" 1000)"
printf '%-44s %9s %9s  %s\n' "errors under the storm" "$storm_errors" "0" "$(verdict "$storm_errors" 0)"
printf '%-44s %9s %9s  %s\n' "peak RSS under the storm (MiB, $indexed reads)" "$storm_rss" "<= $storm_budget" "$(verdict "$storm_rss" "$storm_budget")"
