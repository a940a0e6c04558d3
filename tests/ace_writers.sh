#!/usr/bin/env bash
# The README's one-line rewrites of ACE files written by real assemblers, tried on the files in
# tests/data: as written, each file goes wrong the way the README says; rewritten, the run
# finds every read that the ACE file places. sorvexa-flowcheck runs to the end on both rewrites;
# MIRA's edits of its reads' homopolymers leave most of them untied (their bases are no longer
# the sequencer's), gap5 keeps them as called and ties every one.
#   bash tests/ace_writers.sh SORVEXA_BINARY FLOWCHECK_BINARY
set -uo pipefail
tool=$(realpath "$1")
flowcheck=$(realpath "$2")
root=$(cd "$(dirname "$0")/.." && pwd)
data=$root/tests/data
tmp=$(mktemp -d /tmp/sorvexa-ace-writers.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
passed=0
failed=0
check() { # check DESCRIPTION COMMAND...
    local what=$1
    shift
    if "$@"; then passed=$((passed + 1)); else echo "FAIL: $what"; failed=$((failed + 1)); fi
}

# The rewrites, exactly as the README shows them (file names aside).
mira_fix() { sed '/^QA /{n;/^$/{N;s/^\nDS /DS /}}' "$1"; }
gap5_fix() { sed -E 's/^(AF|RD) ([^ ]+)\.[fr] /\1 \2 /' "$1"; }
check "README shows the MIRA rewrite" grep -qF "sed '/^QA /{n;/^\$/{N;s/^\\nDS /DS /}}'" "$root/README.md"
check "README shows the gap5 rewrite" grep -qF "sed -E 's/^(AF|RD) ([^ ]+)\.[fr] /\1 \2 /'" "$root/README.md"

# run NAME: runs the tool on $tmp/NAME.ace and the SFF file; status and stderr kept.
run() {
    status=0
    (cd "$tmp" && "$tool" "$1.ace" "$data/sim454.sff" >/dev/null 2>"$1.err") || status=$?
}
# The read names of the ACE file's AF lines, and those of the records the run wrote (mode 1:
# after each contig header, name line and quality line alternate).
af_names() { awk '$1 == "AF" {print $2}' "$tmp/$1.ace" | sort; }
found_names() { awk '/^>/ {n = 0; next} n++ % 2 == 0 {print $1}' "$tmp/$1.reads" | sort; }
same_names() { [ -n "$(af_names "$1")" ] && [ "$(af_names "$1")" = "$(found_names "$1")" ]; }

# MIRA 4: an empty line between a read's QA and DS lines ends the run at the contig's last DS.
cp "$data/mira4.ace" "$tmp/mira.ace"
run mira
check "MIRA file as written: status $status, not 1" [ "$status" -eq 1 ]
check "MIRA file as written: message" \
    grep -qxF "Error: tag 'DS' should be not in the ACE file!" "$tmp/mira.err"
mira_fix "$data/mira4.ace" >"$tmp/mira_fixed.ace"
run mira_fixed
check "MIRA file rewritten: status $status" [ "$status" -eq 0 ]
check "MIRA file rewritten: every AF read has a record" same_names mira_fixed

# gap5: read names with .f or .r appended are in no SFF file: a clean run without records.
cp "$data/gap5.ace" "$tmp/gap5.ace"
run gap5
check "gap5 file as written: status $status" [ "$status" -eq 0 ]
check "gap5 file as written: no message" [ ! -s "$tmp/gap5.err" ]
check "gap5 file as written: a contig header" grep -q '^>' "$tmp/gap5.reads"
check "gap5 file as written: no read record" [ -z "$(found_names gap5)" ]
gap5_fix "$data/gap5.ace" >"$tmp/gap5_fixed.ace"
run gap5_fixed
check "gap5 file rewritten: status $status" [ "$status" -eq 0 ]
check "gap5 file rewritten: every AF read has a record" same_names gap5_fixed

# flowcheck NAME: the flow-signal check of $tmp/NAME.ace; its summary line kept.
flowcheck() {
    status=0
    (cd "$tmp" && "$flowcheck" "$1.ace" "$data/sim454.sff" >/dev/null 2>"$1.fc.err") || status=$?
}
flowcheck mira_fixed
check "flowcheck on the MIRA rewrite: status $status" [ "$status" -eq 0 ]
check "flowcheck on the MIRA rewrite: reads tied and untied" \
    grep -qF "reads: 12 tied, 46 untied, 0 in no SFF file" "$tmp/mira_fixed.fc.err"
# MIRA edited most reads' homopolymers: too little of the contig is weighed to call it clean.
check "flowcheck on the MIRA rewrite: the contig is unchecked" \
    grep -qF "1 contigs (1 unchecked)" "$tmp/mira_fixed.fc.err"
flowcheck gap5_fixed
check "flowcheck on the gap5 rewrite: status $status" [ "$status" -eq 0 ]
check "flowcheck on the gap5 rewrite: every read tied, no call" \
    grep -qE "^sorvexa-flowcheck: 1 contigs \(0 unchecked\), [0-9]+ of [0-9]+ runs tested, 0 called different \(0 pass\); reads: 60 tied, 0 untied, 0 in no SFF file$" \
    "$tmp/gap5_fixed.fc.err"

echo "ace_writers: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
