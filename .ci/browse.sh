#!/usr/bin/env bash
# The browser in a real web browser, run as root from the repository root after
#   cmake --preset release && cmake --build --preset release
# Starts sorvexa-browse on a free port with the bundled example, has headless Chromium load
# the overview, a contig window, a read, a window in the signals view and a run page, checks
# the rendered DOM (the contig table, the alignment and flow maps, the charts, the shaded
# signals, the run plot and its model) and that the screenshots are not blank, then stops the
# server with SIGTERM and expects status 0. Then the same example's reads aligned to its
# consensus (minimap2, samtools) are served with --bam, and a window of that BAM is loaded in
# the signals view.
#
# SORVEXA_SCREENSHOTS=DIR keeps the screenshots there (SORVEXA_SCREENSHOTS=docs regenerates
# the README's pictures).
# shellcheck disable=SC2015
set -euo pipefail
cd "$(dirname "$0")/.."
export DEBIAN_FRONTEND=noninteractive

build=${SORVEXA_BUILD:-build/release}  # another build tree: SORVEXA_BUILD=build/NAME
example=$build/example
failures=0
tmp=$(mktemp -d /tmp/sorvexa-browse-ci.XXXXXX)
server_pid=

cleanup() {
    if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; fi
    rm -rf "$tmp"
}
trap cleanup EXIT

pass() { echo "PASS: $*"; }
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

need=()
[ -f /usr/include/microhttpd.h ] || need+=(libmicrohttpd-dev)
[ -x /usr/bin/chromium ] || need+=(chromium fonts-dejavu-core)
command -v python3 >/dev/null 2>&1 || need+=(python3)
command -v minimap2 >/dev/null 2>&1 || need+=(minimap2)
command -v samtools >/dev/null 2>&1 || need+=(samtools)
if [ "${#need[@]}" -gt 0 ]; then
    echo "== installing ${need[*]}"
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
if [ ! -x "$build/browse/sorvexa-browse" ]; then
    cmake --preset release >/dev/null
    cmake --build --preset release --target sorvexa-browse example_data
fi
if [ ! -x "$build/sff2bam/sorvexa-sff2bam" ] || [ ! -x "$build/flowcheck/sorvexa-flowcheck" ]; then
    cmake --build "$build" --target sorvexa-sff2bam sorvexa-flowcheck
fi

"$build/browse/sorvexa-browse" --port 0 "$example/example.ace" "$example/example_a.sff" \
    "$example/example_b.sff" >"$tmp/server.out" 2>&1 &
server_pid=$!
for _ in $(seq 1 300); do
    grep -q 'http://' "$tmp/server.out" && break
    sleep 0.1
done
url=$(grep -o 'http://127.0.0.1:[0-9]*/' "$tmp/server.out" || true)
[ -n "$url" ] || { cat "$tmp/server.out"; echo "FAIL: the server printed no address"; exit 1; }
pass "server listening at $url"

shots=${SORVEXA_SCREENSHOTS:-$tmp}
mkdir -p "$shots"
# chromium NAME PATH WIDTH HEIGHT: the DOM into $tmp/NAME.html, a screenshot into $shots.
chromium() {
    local profile
    profile=$(mktemp -d "$tmp/profile.XXXXXX")
    local flags=(--headless --no-sandbox --disable-gpu --disable-quic --no-first-run
        --disable-background-networking --disable-component-update --disable-sync
        --hide-scrollbars --user-data-dir="$profile")
    timeout 120 /usr/bin/chromium "${flags[@]}" --dump-dom "$url${2#/}" >"$tmp/$1.html" \
        2>>"$tmp/chromium.log" || true
    rm -f "$shots/browse_$1.png"
    timeout 120 /usr/bin/chromium "${flags[@]}" --window-size="$3,$4" \
        --screenshot="$shots/browse_$1.png" "$url${2#/}" >>"$tmp/chromium.log" 2>&1 || true
    if [ -s "$shots/browse_$1.png" ] && stats=$(python3 .ci/png_check.py "$shots/browse_$1.png"); then
        pass "$1: screenshot is not blank: $stats"
    else
        tail -n 20 "$tmp/chromium.log"
        fail "$1: no screenshot, or a blank one"
    fi
}
has() { grep -q -- "$2" "$tmp/$1.html" && pass "$1: $3" || fail "$1: $3 (no '$2' in the DOM)"; }

chromium overview / 1200 560
has overview '<table class="data" id="contigs">' "contig table rendered"
rows=$(grep -o '<tr><td data-v=' "$tmp/overview.html" | wc -l)
[ "$rows" -eq 5 ] && pass "overview: 5 contig rows" || fail "overview: $rows contig rows, not 5"
has overview '<th>runs tested</th>' "what the reads weighed, per contig"

chromium contig '/contig/Contig2?from=600&width=100' 1200 900
has contig '<div class="map align">' "alignment map rendered"
has contig '<div class="map flow">' "flow map rendered"
has contig '<svg class="depth"' "depth chart rendered"
has contig '<span class="bT">T</span>' "coloured bases"
read=$(grep -o 'href="/read/[A-Z0-9]*"' "$tmp/contig.html" | head -1 | sed 's/.*read\/\(.*\)"/\1/')
[ -n "$read" ] && pass "contig: links to reads ($read first)" || fail "contig: no read links"

chromium read "/read/$read" 1200 820
has read '<svg class="flowgram"' "flowgram chart rendered"
has read '<svg class="quality"' "quality chart rendered"

# The flow-signal evidence: a window on the example's strongest disputed run in the signals
# view, and that run's page with its plot and its model. The calls are sorvexa-flowcheck's,
# and the example may have none: then the longest run of Contig1's consensus serves.
run=$(python3 -c 'import sys, urllib.request
proxyless = urllib.request.build_opener(urllib.request.ProxyHandler({}))
lines = proxyless.open(sys.argv[1] + "contig/Contig1.tsv").read().decode().splitlines()[1:]
rows = [r for r in lines if not r.startswith("#")]
if rows:
    print("disputed", max(rows, key=lambda r: float(r.split("\t")[10])).split("\t")[1])
    sys.exit()
cons, inside = "", False
for line in open(sys.argv[2]):
    if line.startswith("CO "):
        inside = line.split()[1] == "Contig1"
    elif inside and not line.strip():
        if cons:
            break
    elif inside:
        cons += line.strip()
best, length, first, letter, count = 0, 0, 0, "", 0
for col, x in enumerate(cons.upper(), 1):
    if x == "*":
        continue
    if x != letter:
        letter, first, count = x, col, 0
    count += 1
    if count > length:
        best, length = first, count
print("longest", best)' "$url" "$example/example.ace" || true)
run_col=${run#* }
if [ -n "$run" ]; then
    pass "Contig1: ${run% *} run at column $run_col"
    from=$((run_col > 30 ? run_col - 30 : 1))
    chromium signals "/contig/Contig1?from=$from&width=60&view=signals" 1200 1750
    has signals 'class="sig-close"' "signal cells shaded"
    has signals 'class="legend"' "shading legend"
    if [ "${run% *}" = disputed ]; then
        has signals 'class="mark"' "disputed run marked above the maps"
    fi
    chromium run "/contig/Contig1/run/$run_col" 1000 900
    has run '<svg class="run-plot"' "run plot rendered"
    has run '<circle' "one dot per read"
    has run '<table class="model">' "the numbers of the model drawn"
else
    fail "Contig1: neither a disputed run in /contig/Contig1.tsv nor a run in its consensus"
fi

kill -TERM "$server_pid"
status=0
wait "$server_pid" || status=$?
server_pid=
[ "$status" -eq 0 ] && pass "server stopped by SIGTERM with status 0" || fail "server ended with status $status"

# --bam: the example's reads, with their flows in tags, aligned to its consensus.
bin=$(cd "$build" && pwd)
ex=$(cd "$example" && pwd)
(
    cd "$tmp"
    "$bin/flowcheck/sorvexa-flowcheck" -o ex "$ex/example.ace" "$ex/example_a.sff" \
        "$ex/example_b.sff" 2>/dev/null
    "$bin/sff2bam/sorvexa-sff2bam" -o reads.bam "$ex/example_a.sff" "$ex/example_b.sff" 2>/dev/null
    samtools view -H reads.bam | grep '^@RG' >rg.txt
    samtools fastq -T FZ,ZF,RG reads.bam 2>/dev/null | minimap2 -y -ax sr ex.consensus.fa - 2>/dev/null |
        sed '1r rg.txt' | samtools sort -o ex.bam - 2>/dev/null && samtools index ex.bam
)
"$build/browse/sorvexa-browse" --port 0 --bam "$tmp/ex.bam" --ref "$tmp/ex.consensus.fa" \
    >"$tmp/bam.out" 2>&1 &
server_pid=$!
for _ in $(seq 1 300); do
    grep -q 'http://' "$tmp/bam.out" && break
    sleep 0.1
done
url=$(grep -o 'http://127.0.0.1:[0-9]*/' "$tmp/bam.out" || true)
if [ -n "$url" ]; then
    pass "--bam server listening at $url"
    # The signals come once the model is fitted in the background.
    for _ in $(seq 1 300); do
        curl -s --noproxy '*' "${url}contig/Contig2?from=600&width=100&view=signals" |
            grep -q 'sig-close' && break
        sleep 0.2
    done
    chromium bam '/contig/Contig2?from=600&width=100&view=signals' 1200 1400
    has bam '<div class="map align">' "alignment map of a BAM window"
    has bam 'class="sig-close"' "signal cells of a BAM window shaded"
    has bam 'positions 600 to 699' "the window in reference positions"
    chromium bamrun '/contig/Contig2/run/650' 1000 900
    has bamrun '<svg class="run-plot"' "run plot of a BAM run"
    kill -TERM "$server_pid"
    wait "$server_pid" || true
    server_pid=
else
    cat "$tmp/bam.out"
    fail "the --bam server printed no address"
fi

if [ "$failures" -eq 0 ]; then
    echo "browse: all checks PASSED"
else
    echo "browse: $failures check(s) FAILED"
    exit 1
fi
