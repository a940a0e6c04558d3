#!/usr/bin/env bash
# sorvexa-flowcheck's VCF and FASTA files as bcftools takes them, on a small simulated
# assembly with errors planted in its consensus (removed one-base runs, shortened and
# lengthened runs): the VCF parses, its REF alleles agree with PREFIX.consensus.fa, applying
# it to that file gives exactly PREFIX.polished.fa, and that is the simulated genome.
#   bash tests/flowcheck_bcftools.sh SIM_ASSEMBLY SORVEXA_FLOWCHECK
# Exit status 77 (skipped) when bcftools, bgzip or tabix is not installed.
set -uo pipefail
for t in bcftools bgzip tabix; do
    if ! command -v "$t" >/dev/null 2>&1; then
        echo "flowcheck_bcftools: $t is not installed (Debian packages bcftools and tabix)"
        exit 77
    fi
done
sim=$(realpath "$1")
flowcheck=$(realpath "$2")
tmp=$(mktemp -d /tmp/sorvexa-flowcheck-bcftools.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
passed=0
failed=0
check() { # check DESCRIPTION COMMAND...
    local what=$1
    shift
    if "$@"; then passed=$((passed + 1)); else echo "FAIL: $what"; failed=$((failed + 1)); fi
}

if ! "$sim" --out "$tmp" --prefix sim --contigs 1 --length 4000 --depth 12 --noise 1.0 \
    --errors 6 --seed 7 >"$tmp/sim.log" 2>&1; then
    echo "FAIL: sim_assembly"
    cat "$tmp/sim.log"
    exit 1
fi
status=0
"$flowcheck" "$tmp/sim.ace" "$tmp/sim.sff" >"$tmp/out" 2>"$tmp/err" || status=$?
check "flowcheck: status $status" [ "$status" -eq 0 ]
check "flowcheck: nothing on stdout" [ ! -s "$tmp/out" ]
[ "$status" -eq 0 ] || cat "$tmp/err"

vcf=$tmp/sim.flowcheck.vcf
ref=$tmp/sim.consensus.fa
# Warnings count as failures: bcftools only warns of an INFO tag the header does not declare.
view_quietly() { bcftools view -o /dev/null "$vcf" 2>"$tmp/view.err" && [ ! -s "$tmp/view.err" ]; }
check "bcftools view reads the VCF without a warning" view_quietly
[ -s "$tmp/view.err" ] && head -n 5 "$tmp/view.err"
# One record per planted error: they stand far enough apart never to share an anchor base.
records() { [ "$(bcftools view -H "$vcf" | wc -l)" -eq "$(($(wc -l <"$tmp/sim.planted.tsv") - 1))" ]; }
check "one VCF record per planted error" records
check "bgzip" bgzip -f "$vcf"
check "tabix" tabix -p vcf "$vcf.gz"
check_ref() { bcftools norm --check-ref e -f "$ref" -o /dev/null "$vcf.gz" 2>"$tmp/norm.err" || ! cat "$tmp/norm.err"; }
check "bcftools norm finds every REF allele in the consensus" check_ref
# The header's contig lengths are those of the FASTA file the VCF refers to (bcftools takes
# them on trust).
contig_lengths() {
    diff <(bcftools view -h "$vcf.gz" | sed -nE 's/^##contig=<ID=([^,]+),length=([0-9]+)>$/\1\t\2/p') \
        <(cut -f1,2 "$ref.fai")
}
check "contig lengths in the header" contig_lengths
check "the header names the consensus file" \
    grep -qxF "##reference=file:sim.consensus.fa" <(bcftools view -h "$vcf.gz")
# Only calls that pass are applied, as PREFIX.polished.fa applies them.
bcftools consensus -i 'FILTER="PASS"' -f "$ref" "$vcf.gz" >"$tmp/applied.fa" 2>"$tmp/consensus.err" || cat "$tmp/consensus.err"
check "bcftools consensus gives the polished FASTA" cmp "$tmp/applied.fa" "$tmp/sim.polished.fa"
check "the polished FASTA is the simulated genome" cmp "$tmp/sim.polished.fa" "$tmp/sim.truth.fa"
# QUAL is the phred-scaled probability that the consensus length is right: every call
# clears the default threshold.
check "every record's QUAL is at least 20" \
    [ "$(bcftools view -H -e 'QUAL>=20' "$vcf.gz" | wc -l)" -eq 0 ]
# A filtered call (declared in the header) is read without a warning and left out by -f PASS.
bcftools view -h "$vcf.gz" >"$tmp/filtered.vcf"
bcftools view -H "$vcf.gz" | awk -F'\t' 'BEGIN { OFS = FS } NR == 1 { $7 = "StrandConflict" } { print }' \
    >>"$tmp/filtered.vcf"
filtered_quietly() {
    [ "$(bcftools view -H -f PASS "$tmp/filtered.vcf" 2>"$tmp/filtered.err" | wc -l)" -eq \
        "$(($(wc -l <"$tmp/sim.planted.tsv") - 2))" ] && [ ! -s "$tmp/filtered.err" ]
}
check "a StrandConflict record is declared and filtered out" filtered_quietly

echo "flowcheck_bcftools: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
