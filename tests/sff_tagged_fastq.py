#!/usr/bin/env python3
"""The kept bases of SFF reads as FASTQ whose comments carry the read's flows as SAM tags
(RG:Z, FZ:B:S the whole flowgram, ZF:i the flow of the first kept base), for an aligner that
copies comments into its records (minimap2 -y). The read group's @RG line, with the flow order
(FO) and the key (KS), goes to --rg-line.

    sff_tagged_fastq.py --group ID --rg-line RG.txt [--no-flows] IN.sff > OUT.fastq
"""
import argparse
import sys
from itertools import accumulate

from Bio import SeqIO


def kept_range(a):
    # As the SFF reader takes it: the larger left clip, the smaller non-zero right clip.
    n = len(a["flow_index"])
    left = max(a["clip_qual_left"], a["clip_adapter_left"], 1) - 1
    rights = [c for c in (a["clip_qual_right"], a["clip_adapter_right"]) if c > 0]
    return left, min(rights + [n])


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--group", required=True)
    p.add_argument("--rg-line", required=True)
    p.add_argument("--no-flows", action="store_true", help="names only: tie through the SFF file")
    p.add_argument("sff")
    o = p.parse_args()
    out = sys.stdout
    header = None
    for rec in SeqIO.parse(o.sff, "sff"):
        a = rec.annotations
        if header is None:
            header = f"@RG\tID:{o.group}\tPL:LS454\tFO:{a['flow_chars']}\tKS:{a['flow_key']}\n"
        left, right = kept_range(a)
        if right <= left:
            continue
        seq = str(rec.seq)[left:right].upper()
        qual = "".join(chr(33 + q) for q in rec.letter_annotations["phred_quality"][left:right])
        flows = list(accumulate(a["flow_index"]))
        tags = f"RG:Z:{o.group}"
        if not o.no_flows:
            tags += "\tFZ:B:S," + ",".join(str(v) for v in a["flow_values"])
            tags += f"\tZF:i:{flows[left] - 1}"
        out.write(f"@{rec.id} {tags}\n{seq}\n+\n{qual}\n")
    with open(o.rg_line, "w") as f:
        f.write(header or f"@RG\tID:{o.group}\n")


if __name__ == "__main__":
    main()
