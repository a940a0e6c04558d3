#!/usr/bin/env python3
"""Checks of simulated assemblies and scoring of the homopolymer checker on them.

  flowcheck_eval.py check-sim DIR NAME
      NAME.ace against NAME.truth.fa and NAME.planted.tsv: the unpadded consensus is the truth
      once the planted errors are undone, and every read agrees with the consensus letter for
      letter (its own run lengths and spurious letters aside).
  flowcheck_eval.py check-records ACE READS
      A mode-3 records file written for ACE: every read of every contig has a record, its
      qualities are as many as its unpadded bases, and its flow indexes agree with its flowgram
      (each flow called as many bases as its value rounds to).
  flowcheck_eval.py score LABEL BASES RUN...
      RUN is SIMDIR/NAME:OUTPREFIX[:ALLPREFIX]. Scores OUTPREFIX.flowcheck.tsv against
      SIMDIR/NAME.planted.tsv and OUTPREFIX.polished.fa against SIMDIR/NAME.truth.fa; prints one
      tab-separated summary line (label, planted, called, missed, false calls, false calls per
      10 kb, polished sets equal to the truth, sets), then the planted errors missed and the
      false calls, looked up in ALLPREFIX.flowcheck.tsv (a run with --all) when given.
Exit status 0 when everything checked holds (score: always 0), 1 otherwise.
"""
import sys


def read_ace(path):
    """{contig: (consensus, [(name, direction, start, padded)])}, in file order."""
    contigs = {}
    order = []
    with open(path) as f:
        lines = f.read().split("\n")
    i = 0
    current = None
    starts = {}
    while i < len(lines):
        line = lines[i]
        if line.startswith("CO "):
            current = line.split()[1]
            seq = []
            i += 1
            while i < len(lines) and lines[i]:
                seq.append(lines[i])
                i += 1
            contigs[current] = ("".join(seq), [])
            order.append(current)
            starts = {}
            continue
        if line.startswith("AF "):
            _, name, direction, start = line.split()
            starts[name] = (direction, int(start))
        elif line.startswith("RD "):
            name = line.split()[1]
            seq = []
            i += 1
            while i < len(lines) and lines[i]:
                seq.append(lines[i])
                i += 1
            direction, start = starts[name]
            contigs[current][1].append((name, direction, start, "".join(seq)))
            continue
        i += 1
    return {c: contigs[c] for c in order}


def read_fasta(path):
    records = {}
    name = None
    with open(path) as f:
        for line in f:
            line = line.rstrip("\n")
            if line.startswith(">"):
                name = line[1:].split()[0]
                records[name] = []
            elif name is not None:
                records[name].append(line)
    return {n: "".join(s) for n, s in records.items()}


def read_table(path):
    with open(path) as f:
        rows = [line.rstrip("\n").split("\t") for line in f if line.strip()]
    header = rows[0]
    return [dict(zip(header, r)) for r in rows[1:]]


def check_sim(directory, name):
    base = f"{directory}/{name}"
    ace = read_ace(base + ".ace")
    truth = read_fasta(base + ".truth.fa")
    planted = read_table(base + ".planted.tsv")
    problems = []
    if list(ace) != list(truth):
        problems.append(f"contigs {list(ace)} in the ACE file, {list(truth)} in the truth")
    for contig, (consensus, reads) in ace.items():
        unpadded = consensus.replace("*", "")
        edits = sorted((int(p["position"]), p) for p in planted if p["contig"] == contig)
        fixed = unpadded
        for position, p in reversed(edits):
            at, have, want = position - 1, int(p["consensus_length"]), int(p["true_length"])
            letter = p["letter"]
            if fixed[at:at + have] != letter * have or have == want:
                problems.append(f"{contig}:{position}: no {have}-base {letter} run to undo")
            elif (at > 0 and fixed[at - 1] == letter) or fixed[at + have:at + have + 1] == letter:
                problems.append(f"{contig}:{position}: the planted run is not a whole run")
            fixed = fixed[:at] + letter * want + fixed[at + have:]
        if fixed != truth.get(contig):
            first = next((k for k, (a, b) in enumerate(zip(fixed, truth.get(contig, ""))) if a != b),
                         min(len(fixed), len(truth.get(contig, ""))))
            problems.append(f"{contig}: consensus with the errors undone differs from the truth "
                            f"at unpadded base {first + 1}")
        # The nearest consensus letter to the left and to the right of every column.
        left_of, right_of = [""] * len(consensus), [""] * len(consensus)
        for k in range(1, len(consensus)):
            left_of[k] = consensus[k - 1] if consensus[k - 1] != "*" else left_of[k - 1]
        for k in range(len(consensus) - 2, -1, -1):
            right_of[k] = consensus[k + 1] if consensus[k + 1] != "*" else right_of[k + 1]
        for read, direction, start, padded in reads:
            end = start + len(padded) - 1
            if start < 1 or end > len(consensus) or padded[0] == "*" or padded[-1] == "*":
                problems.append(f"{contig} {read}: columns {start}-{end} or its ends are pads")
                continue
            if direction not in ("U", "C"):
                problems.append(f"{contig} {read}: direction {direction}")
            for k, b in enumerate(padded):
                column = start - 1 + k
                c = consensus[column]
                if b == "*" or b == c:
                    continue
                if c != "*":
                    problems.append(f"{contig} {read}: {b} against {c} at column {column + 1}")
                    break
                # In a pad column a read either goes on with the run it holds in the column
                # before, or holds a letter neither neighbouring consensus base has.
                left, right = left_of[column], right_of[column]
                goes_on = b == left and k > 0 and padded[k - 1] == b
                if not goes_on and b in (left, right):
                    problems.append(f"{contig} {read}: {b} in pad column {column + 1} between "
                                    f"{left} and {right}")
                    break
    for p in problems[:20]:
        print(f"check-sim {base}: {p}")
    return not problems


def check_records(ace_path, records_path):
    ace = read_ace(ace_path)
    problems = []
    records = {}
    contig = None
    with open(records_path) as f:
        lines = f.read().split("\n")
    i = 0
    while i < len(lines):
        line = lines[i]
        if line.startswith(">"):
            fields = line[1:].split("\t")
            contig = fields[0]
            if fields[2] != "3":
                problems.append(f"{contig}: mode {fields[2]}, not 3")
            records[contig] = []
            i += 1
            continue
        if contig is not None and line:
            records[contig].append(lines[i:i + 4])
            i += 4
            continue
        i += 1
    for name, (_, reads) in ace.items():
        got = records.get(name, [])
        if len(got) != len(reads):
            problems.append(f"{name}: {len(got)} records for {len(reads)} reads")
        lengths = {r[0]: len(r[3].replace("*", "")) for r in reads}
        for record in got:
            read = record[0].split("\t")[0]
            quality = record[1].split("\t") if record[1] else []
            flows = [int(v) for v in record[2].split("\t")] if record[2] else []
            values = [int(v) for v in record[3].split("\t")]
            if len(quality) != lengths.get(read, -1) or len(flows) != len(quality):
                problems.append(f"{name} {read}: {len(quality)} qualities, {len(flows)} flow "
                                f"indexes for {lengths.get(read)} bases")
                continue
            count = [0] * len(values)
            for f in flows:
                count[f] += 1
            # Past the key each flow called exactly as many bases as its value rounds to.
            bad = [f for f in range(8, len(values)) if count[f] != (values[f] + 50) // 100]
            bad += [f for f in range(8) if count[f] > (values[f] + 50) // 100]
            if bad:
                problems.append(f"{name} {read}: flow {bad[0]} holds {values[bad[0]]} for "
                                f"{count[bad[0]]} bases")
    for p in problems[:20]:
        print(f"check-records {records_path}: {p}")
    return not problems


def score(label, bases, runs):
    planted_total = called = false_calls = equal = 0
    details = []
    for run in runs:
        parts = run.split(":")
        sim, out = parts[0], parts[1]
        everything = parts[2] if len(parts) > 2 else None
        planted = read_table(sim + ".planted.tsv")
        calls = read_table(out + ".flowcheck.tsv")
        tested = {}
        if everything:
            for r in read_table(everything + ".flowcheck.tsv"):
                tested[(r["contig"], r["position"], r["letter"])] = r
        wanted = {(p["contig"], p["position"], p["letter"]): p for p in planted}
        matched = set()
        for c in calls:
            key = (c["contig"], c["position"], c["letter"])
            p = wanted.get(key)
            if p is not None and c["called_length"] == p["true_length"]:
                matched.add(key)
                continue
            false_calls += 1
            details.append(f"  false  {sim}: {describe(c)}")
        planted_total += len(planted)
        called += len(matched)
        for key, p in wanted.items():
            if key in matched:
                continue
            seen = tested.get(key)
            how = describe(seen) if seen else "not among the tested runs"
            details.append(f"  missed {sim}: {p['contig']} {p['position']} {p['letter']} "
                           f"consensus {p['consensus_length']} true {p['true_length']}; {how}")
        polished = read_fasta(out + ".polished.fa") if exists(out + ".polished.fa") else None
        if polished is not None and polished == read_fasta(sim + ".truth.fa") and \
                same_bytes(out + ".polished.fa", sim + ".truth.fa"):
            equal += 1
    per10kb = false_calls / (bases / 10000) if bases else 0
    print(f"{label}\t{planted_total}\t{called}\t{planted_total - called}\t{false_calls}\t"
          f"{per10kb:.2f}\t{equal}\t{len(runs)}")
    for d in details:
        print(d)
    return True


def describe(row):
    return (f"{row['contig']} column {row['column']} position {row['position']} {row['letter']} "
            f"consensus {row['consensus_length']} called {row['called_length']} signals "
            f"{row['signals']} ({row['forward']}+/{row['reverse']}-) mean {row['mean_signal']} "
            f"score {row['score']}")


def exists(path):
    try:
        with open(path, "rb"):
            return True
    except OSError:
        return False


def same_bytes(a, b):
    with open(a, "rb") as x, open(b, "rb") as y:
        return x.read() == y.read()


def main(argv):
    if len(argv) == 4 and argv[1] == "check-sim":
        return 0 if check_sim(argv[2], argv[3]) else 1
    if len(argv) == 4 and argv[1] == "check-records":
        return 0 if check_records(argv[2], argv[3]) else 1
    if len(argv) >= 5 and argv[1] == "score":
        return 0 if score(argv[2], int(argv[3]), argv[4:]) else 1
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
