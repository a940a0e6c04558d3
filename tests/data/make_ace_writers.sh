#!/usr/bin/env bash
# Regenerates the assembler-written ACE files beside this script from simulated 454 reads:
# sim454.sff (the reads, made by tests/support/sim454), mira4.ace (MIRA 4) and gap5.ace
# (Staden gap5). As root on Debian 12:
#   apt-get install mira-assembler staden minimap2 samtools xvfb xauth
#   cmake --build --preset release --target sim454
#   bash tests/data/make_ace_writers.sh build/release/tests/support/sim454
set -euo pipefail
sim=$(realpath "$1")
data=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/sorvexa-ace-writers.XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work"

# 60 reads of about 150 to 180 bases from a 1,500-base genome: SFF, FASTQ under the same names,
# and the genome as FASTA.
"$sim" --out . --prefix sim454 --genome 1500 --reads 60 --seed 16

# MIRA 4: de novo assembly of the reads as 454 reads, the result converted to ACE.
cat >mira4.conf <<'CONF'
project = mira4
job = genome,denovo,accurate
readgroup = sim454
technology = 454
data = sim454.fastq
CONF
mira mira4.conf >mira4.log 2>&1
miraconvert -f maf -t ace mira4_assembly/mira4_d_results/mira4_out.maf mira4 >>mira4.log 2>&1

# gap5: the reads aligned to the genome, imported, exported as ACE. gap5_cmd crashes under
# tclsh here, so its script runs under wish on a virtual display, and exits when done.
minimap2 -a sim454_genome.fasta sim454.fastq 2>/dev/null | samtools sort -o sim454.bam -
staden tg_index -o gap5 sim454.bam >gap5.log 2>&1
printf 'wm withdraw .\nsource $env(STADTCL)/gap5/gap5_cmd.tcl\nexit\n' >export.tcl
STADENROOT=/usr xvfb-run -a sh -c '. /usr/share/staden/staden.profile &&
    exec wish8.6 export.tcl export -f ace -o gap5.ace gap5.g5d' >>gap5.log 2>&1

cp sim454.sff mira4.ace gap5.ace "$data/"
ls -l "$data"/sim454.sff "$data"/mira4.ace "$data"/gap5.ace
