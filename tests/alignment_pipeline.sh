#!/usr/bin/env bash
# sorvexa-flowcheck --bam on reads aligned as an aligner leaves them: the consensus of each
# assembly in tests/data as the reference, its SFF reads through sorvexa-sff2bam and samtools
# fastq with their flows in SAM tags (or bare, to be tied by name through the SFF file),
# minimap2, samtools sort and index. At
# least 99% of the aligned reads are tied; a base taken out of a homopolymer of the reference
# is called back, and the polished sequence is the reference as it was. Inputs that cannot
# serve stop the run with one line and no output file.
#   bash tests/alignment_pipeline.sh FLOWCHECK_BINARY SFF2BAM_BINARY   (77: no minimap2 or samtools)
set -uo pipefail
flowcheck=$(realpath "$1")
sff2bam=$(realpath "$2")
root=$(cd "$(dirname "$0")/.." && pwd)
data=$root/tests/data
for tool in minimap2 samtools python3; do
    command -v "$tool" >/dev/null || { echo "SKIP: $tool missing"; exit 77; }
done
tmp=$(mktemp -d /tmp/sorvexa-aln-pipeline.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
cd "$tmp" || exit 1
passed=0
failed=0
check() { # check DESCRIPTION COMMAND...
    local what=$1
    shift
    if "$@"; then passed=$((passed + 1)); else echo "FAIL: $what"; failed=$((failed + 1)); fi
}

# align NAME REF FASTQ: NAME.bam, sorted and indexed. The reads' comments carry their RG tag
# (minimap2 -y), the header gets the group's line from rg.txt.
align() {
    minimap2 -y -ax sr "$2" "$3" 2>/dev/null | sed '1r rg.txt' |
        samtools sort -o "$1.bam" - 2>/dev/null && samtools index "$1.bam"
}
# tied_share NAME: "tied aligned" from the run's summary and the BAM's primary alignments.
tied_enough() {
    local tied aligned
    tied=$(sed -n 's/.*reads: \([0-9]*\) tied.*/\1/p' "$1.err")
    aligned=$(samtools view -c -F 0xF04 "$1.bam")
    echo "$1: $tied of $aligned aligned reads tied"
    [ -n "$tied" ] && [ "$aligned" -gt 0 ] && [ $((tied * 100)) -ge $((aligned * 99)) ]
}

"$sff2bam" -o reads.bam "$data/sim454.sff" 2>/dev/null
samtools view -H reads.bam | grep '^@RG' >rg.txt
samtools fastq -T FZ,ZF,RG reads.bam >flows.fq 2>/dev/null
samtools fastq -T RG reads.bam >bare.fq 2>/dev/null
sed '/^QA /{n;/^$/{N;s/^\nDS /DS /}}' "$data/mira4.ace" >mira.ace
sed -E 's/^(AF|RD) ([^ ]+)\.[fr] /\1 \2 /' "$data/gap5.ace" >gap5.ace
for set in mira gap5; do
    "$flowcheck" --sigma-base 0.1 "$set.ace" "$data/sim454.sff" 2>/dev/null
    mv "$set.consensus.fa" "$set.ref.fa"
    align "$set" "$set.ref.fa" flows.fq
    status=0
    "$flowcheck" --bam "$set.bam" --ref "$set.ref.fa" 2>"$set.err" || status=$?
    check "$set: status $status" [ "$status" -eq 0 ]
    check "$set: tied from FZ/ZF" tied_enough "$set"
    check "$set: the consensus is the reference" cmp -s "$set.consensus.fa" "$set.ref.fa"
    check "$set: -o defaults to the BAM's stem" [ -s "$set.flowcheck.vcf" ]
done
align bare gap5.ref.fa bare.fq
"$flowcheck" --bam bare.bam --ref gap5.ref.fa "$data/sim454.sff" 2>bare.err
check "tied by name through the SFF file" tied_enough bare

# A base taken out of the first run of three or more past base 400 of the gap5 consensus.
python3 - <<'EOF'
import re
seq = "".join(l.strip() for l in open("gap5.ref.fa") if not l.startswith(">"))
m = next(m for m in re.finditer(r"A{3,}|C{3,}|G{3,}|T{3,}", seq) if m.start() > 400)
open("planted.fa", "w").write(">genome\n" + seq[: m.start()] + seq[m.start() + 1 :] + "\n")
open("planted.pos", "w").write(str(m.start()) + "\n")  # the 1-based VCF position of its anchor
EOF
align planted planted.fa flows.fq
"$flowcheck" --bam planted.bam --ref planted.fa 2>planted.err
check "the planted error is called" \
    grep -qP "^genome\t$(cat planted.pos)\t.*\tPASS\t" planted.flowcheck.vcf
check "polished = the reference before the error" \
    cmp -s <(grep -v '>' planted.polished.fa | tr -d '\n') <(grep -v '>' gap5.ref.fa | tr -d '\n')

# refused LABEL MESSAGE ARGS...: status 1, one line, no output file.
refused() {
    local label=$1 message=$2
    shift 2
    rm -f out.*
    local status=0
    "$flowcheck" -o out "$@" 2>err.txt || status=$?
    check "$label: status $status" [ "$status" -eq 1 ]
    check "$label: one line" [ "$(wc -l <err.txt)" -eq 1 ]
    check "$label: message" grep -qF "$message" err.txt
    check "$label: nothing written" [ -z "$(ls out.* 2>/dev/null)" ]
}
minimap2 -y -ax sr gap5.ref.fa flows.fq 2>/dev/null | sed '1r rg.txt' |
    samtools view -b -o unsorted.bam -
refused "unsorted" "is not sorted by coordinate (samtools sort" --bam unsorted.bam --ref gap5.ref.fa
cp gap5.bam unindexed.bam
refused "no index" "has no index (make one with: samtools index" --bam unindexed.bam --ref gap5.ref.fa
refused "other reference" "has no sequence" --bam gap5.bam --ref mira.ref.fa
samtools view -C -T gap5.ref.fa -o gap5.cram gap5.bam && samtools index gap5.cram
refused "CRAM without its reference" "is CRAM: its reference FASTA has to be given" --bam gap5.cram
samtools view -H gap5.bam | sed 's/\tFO:[ACGT]*//' >nofo.sam
samtools view gap5.bam >>nofo.sam
refused "read group without FO" "has no flow order (FO)" --bam nofo.sam --ref gap5.ref.fa
"$flowcheck" -o cram --bam gap5.cram --ref gap5.ref.fa 2>cram.err
check "CRAM with its reference: as BAM" cmp -s cram.flowcheck.vcf <(sed 's/gap5.consensus/cram.consensus/' gap5.flowcheck.vcf)

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
