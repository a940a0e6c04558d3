#!/usr/bin/env bash
# The README's pipelines for sorvexa-sff2bam, run as written: simulated 454 reads (sim454, with
# their genome as the reference) converted to BAM, then
#   samtools fastq -T FZ,ZF,RG reads.bam | minimap2 -y -ax sr ref.fa - | samtools sort -o aln.bam
#   samtools fastq -T FZ,ZF,RG reads.bam | bwa mem -C -H rg.txt ref.fa - | samtools sort -o aln.bam
# (the read groups' @RG lines brought across with samtools reheader after minimap2, with bwa's
# -H). Checks that every aligned record carries FZ (B:S), ZF (i) and RG (Z), each exactly as
# sorvexa-sff2bam wrote it for its read, that its read group is in the header with its FO
# and KS, and that most reads aligned. Exits 77 (skipped) when samtools, minimap2 or bwa is
# missing.
#
#   sff2bam_pipeline.sh SIM454 SORVEXA_SFF2BAM
set -euo pipefail
sim454=$(realpath "$1")
sff2bam=$(realpath "$2")
for tool in samtools minimap2 bwa; do
    command -v "$tool" >/dev/null 2>&1 || { echo "skipped: $tool is not installed"; exit 77; }
done
tmp=$(mktemp -d "${TMPDIR:-/tmp}/sff2bam-pipeline.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
cd "$tmp"
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

"$sim454" --out . --prefix sim --genome 20000 --reads 400 --seed 7 >/dev/null
"$sff2bam" -o reads.bam sim.sff 2>sff2bam.err || { cat sff2bam.err; exit 1; }
samtools view -H reads.bam | grep '^@RG' >rg.txt
grep -q $'^@RG\tID:sim\tPL:LS454\tFO:TACG' rg.txt || fail "reads.bam's read group: $(cat rg.txt)"

# name FZ ZF RG of every record, one line each (the tags as SAM text, "-" where one is missing).
tags() {
    awk -F '\t' '{
        fz = "-"; zf = "-"; rg = "-"
        for (i = 12; i <= NF; i++) {
            t = substr($i, 1, 5)
            if (t == "FZ:B:") fz = $i; else if (t == "ZF:i:") zf = $i; else if (t == "RG:Z:") rg = $i
        }
        print $1, fz, zf, rg
    }'
}
samtools view reads.bam | tags | sort -u >want.txt
reads=$(wc -l <want.txt)

# check LABEL BAM: every aligned record keeps its read's tags; the header has the read group.
check() {
    local label=$1 bam=$2 aligned missing changed
    samtools view -H "$bam" | grep -q $'^@RG\tID:sim\tPL:LS454\tFO:TACG[ACGT]*\tKS:TCAG$' ||
        fail "$label: no @RG line with FO and KS in the header"
    samtools view -F 4 "$bam" | tags >got.txt
    aligned=$(cut -d ' ' -f 1 got.txt | sort -u | wc -l)
    missing=$(grep -c -e ' -' got.txt || true)
    changed=$(sort -u got.txt | comm -23 - want.txt | wc -l)
    [ "$missing" -eq 0 ] || fail "$label: $missing aligned records lack FZ, ZF or RG"
    [ "$changed" -eq 0 ] || fail "$label: $changed aligned records' tags differ from reads.bam's"
    [ $((aligned * 10)) -ge $((reads * 9)) ] || fail "$label: only $aligned of $reads reads aligned"
    echo "$label: $aligned of $reads reads aligned ($(wc -l <got.txt) records), every one with its FZ, ZF and RG"
}

# minimap2 (-y copies the FASTQ comment, where samtools fastq -T put the tags).
samtools fastq -T FZ,ZF,RG reads.bam 2>/dev/null | minimap2 -y -ax sr sim_genome.fasta - 2>/dev/null |
    samtools sort -o aln.bam 2>/dev/null
{ samtools view -H aln.bam; cat rg.txt; } >header.sam
samtools reheader header.sam aln.bam >aln.rg.bam
check "minimap2 -y" aln.rg.bam

# bwa mem (-C copies the comment, -H adds the @RG lines).
bwa index sim_genome.fasta 2>/dev/null
samtools fastq -T FZ,ZF,RG reads.bam 2>/dev/null | bwa mem -C -H rg.txt sim_genome.fasta - 2>/dev/null |
    samtools sort -o bwa.bam 2>/dev/null
check "bwa mem -C" bwa.bam

[ "$failures" -eq 0 ] || exit 1
echo "sff2bam pipeline: 2 passed, 0 failed"
