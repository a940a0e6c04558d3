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
  flowcheck_eval.py score --label L --depth D --polish yes|no --bases N RUN...
      RUN is SIMDIR/NAME:OUTPREFIX[:ALLPREFIX], N the bases of one set. Scores the PASS lines of
      OUTPREFIX.flowcheck.tsv against SIMDIR/NAME.planted.tsv, OUTPREFIX.polished.fa against
      SIMDIR/NAME.truth.fa and, at depth 12, OUTPREFIX.flowcheck.model.tsv against
      SIMDIR/NAME.truth_model.tsv. Prints the scenario's figures as one JSON line, then up to a
      few of the planted errors missed and of the false calls, looked up in
      ALLPREFIX.flowcheck.tsv (a run with --all) when given.
  flowcheck_eval.py table ROWS
      The table of the scenarios whose JSON lines ROWS holds, each against its targets, and the
      figures over all of them.
Exit status 0 when everything checked holds (score, table: always 0), 1 otherwise.
"""
import argparse
import json
import os
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
    """The rows of a tab-separated file with a header line, by column name; lines starting
    with # (the checker's per-contig coverage lines) are not rows."""
    with open(path) as f:
        rows = [line.rstrip("\n").split("\t") for line in f
                if line.strip() and not line.startswith("#")]
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
        # The column of the nearest consensus letter to the left and to the right of every
        # column (-1 and the length where there is none).
        left_at, right_at = [-1] * len(consensus), [len(consensus)] * len(consensus)
        for k in range(1, len(consensus)):
            left_at[k] = k - 1 if consensus[k - 1] != "*" else left_at[k - 1]
        for k in range(len(consensus) - 2, -1, -1):
            right_at[k] = k + 1 if consensus[k + 1] != "*" else right_at[k + 1]
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
                # before, or holds a letter apart from the neighbouring consensus runs: another
                # letter, or theirs with some other letter of the read in between (a spurious
                # call next to a run the consensus lacks).
                lo, hi = left_at[column], right_at[column]
                left = consensus[lo] if lo >= 0 else ""
                right = consensus[hi] if hi < len(consensus) else ""
                goes_on = b == left and k > 0 and padded[k - 1] == b
                only_b = {b, "*"}
                joins_left = b == left and set(padded[max(lo - start + 1, 0):k]) <= only_b
                joins_right = b == right and set(padded[k + 1:hi - start + 1]) <= only_b
                if not goes_on and (joins_left or joins_right):
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


# Share of the planted errors to be called, by depth (6-8 deep is 7).
CALLED_TARGET = {12: 0.98, 7: 0.95, 4: 0.95, 3: 0.90}
FALSE_PER_10KB_EACH_SET = 1.0
FALSE_PER_10KB_OVERALL = 0.3
# The fitted model against the truth, at depth 12: lengths, centre off by at most, spread off by
# at most this share of the true spread.
MODEL_LENGTHS = range(1, 6)
MODEL_CENTRE = 0.05
MODEL_SPREAD = 0.20
# Missed errors and false calls listed per scenario, each.
LISTED = 5


def score_set(sim, out, everything):
    """(planted, called, false calls, polished equals the truth, missed lines, false lines)."""
    planted = read_table(sim + ".planted.tsv")
    calls = [c for c in read_table(out + ".flowcheck.tsv") if c.get("filter", "PASS") == "PASS"]
    tested = {}
    if everything:
        for r in read_table(everything + ".flowcheck.tsv"):
            tested[(r["contig"], r["position"], r["letter"])] = r
    wanted = {(p["contig"], p["position"], p["letter"]): p for p in planted}
    matched = set()
    false_lines = []
    for c in calls:
        key = (c["contig"], c["position"], c["letter"])
        p = wanted.get(key)
        if p is not None and c["called_length"] == p["true_length"]:
            matched.add(key)
        else:
            false_lines.append(f"  false  {sim}: {describe(c)}")
    missed_lines = []
    for key, p in wanted.items():
        if key in matched:
            continue
        seen = tested.get(key)
        how = describe(seen) if seen else "not among the tested runs"
        missed_lines.append(f"  missed {sim}: {p['contig']} {p['position']} {p['letter']} "
                            f"consensus {p['consensus_length']} true {p['true_length']}; {how}")
    polished = out + ".polished.fa"
    equal = exists(polished) and read_fasta(polished) == read_fasta(sim + ".truth.fa") and \
        same_bytes(polished, sim + ".truth.fa")
    return len(planted), len(matched), len(false_lines), equal, missed_lines, false_lines


def check_model(sim, out):
    """Per SFF file and length of MODEL_LENGTHS the truth has values for: (file, length, centre
    off by, spread off by as a share of the truth, within both limits); None without a model
    file. A file the model has no line for at a length is held to its pooled (*) line."""
    path = out + ".flowcheck.model.tsv"
    if not exists(path):
        return None
    fitted = {}
    for r in read_table(path):
        name = r["file"] if r["file"] == "*" else os.path.basename(r["file"])
        fitted.setdefault((name, int(r["length"])), r)
    pairs = []
    for t in read_table(sim + ".truth_model.tsv"):
        length = int(t["length"])
        if length not in MODEL_LENGTHS or t["centre"] == "NA":
            continue
        f = fitted.get((t["file"], length)) or fitted.get(("*", length))
        if f is None:
            pairs.append((t["file"], length, None, None, False))
            continue
        centre = float(f["centre"]) - float(t["centre"])
        truth_spread = float(t["spread"])
        spread = float(f["spread"]) / truth_spread - 1 if truth_spread > 0 else float("inf")
        pairs.append((t["file"], length, centre, spread,
                      abs(centre) <= MODEL_CENTRE and abs(spread) <= MODEL_SPREAD))
    return pairs


def model_summary(runs):
    """The model check over the sets of a scenario, for its JSON line."""
    checked = [(run.split(":")[0], check_model(*run.split(":")[:2])) for run in runs]
    if all(pairs is None for _, pairs in checked):
        return {"state": "no model file"}
    within = total = missing = 0
    worst_centre = worst_spread = None
    for sim, pairs in checked:
        if pairs is None:
            missing += 1
            continue
        for name, length, centre, spread, ok in pairs:
            total += 1
            within += ok
            where = f"{os.path.basename(os.path.dirname(sim))} {name} length {length}"
            if centre is None:
                continue
            if worst_centre is None or abs(centre) > abs(worst_centre[0]):
                worst_centre = (centre, where)
            if worst_spread is None or abs(spread) > abs(worst_spread[0]):
                worst_spread = (spread, where)
    return {"state": "checked", "within": within, "pairs": total, "sets_without": missing,
            "worst_centre": worst_centre, "worst_spread": worst_spread}


def score(args):
    row = {"label": args.label, "depth": args.depth, "polish": args.polish == "yes",
           "sets": len(args.runs), "bases": args.bases * len(args.runs),
           "planted": 0, "called": 0, "false": 0, "equal": 0, "worst_false": None}
    missed_lines, false_lines = [], []
    for run in args.runs:
        parts = run.split(":")
        planted, called, false, equal, missed, wrong = score_set(
            parts[0], parts[1], parts[2] if len(parts) > 2 else None)
        row["planted"] += planted
        row["called"] += called
        row["false"] += false
        row["equal"] += equal
        per10kb = false / (args.bases / 10000)
        if row["worst_false"] is None or per10kb > row["worst_false"][0]:
            row["worst_false"] = (per10kb, os.path.basename(os.path.dirname(parts[0])))
        missed_lines += missed
        false_lines += wrong
    row["model"] = model_summary(args.runs) if args.depth == 12 else {"state": "-"}
    print(json.dumps(row))
    for lines in (missed_lines, false_lines):
        for line in lines[:LISTED]:
            print(line)
        if len(lines) > LISTED:
            print(f"  ... and {len(lines) - LISTED} more")
    return True


def verdict(row):
    """Whether the scenario meets its targets, and the share of the planted errors called."""
    share = row["called"] / row["planted"] if row["planted"] else 1.0
    ok = share >= CALLED_TARGET[row["depth"]] and \
        row["worst_false"][0] <= FALSE_PER_10KB_EACH_SET and \
        (not row["polish"] or row["equal"] == row["sets"])
    return ok, share


def print_table(path):
    with open(path) as f:
        rows = [json.loads(line) for line in f if line.strip()]
    print(f"{'scenario':<17} {'sets':>4} {'planted':>7} {'called':>6} {'called%':>7} "
          f"{'target':>6} {'false':>5} {'/10kb':>6} {'worst':>6} {'polished':>8}  verdict")
    met = 0
    for r in rows:
        ok, share = verdict(r)
        met += ok
        polished = f"{r['equal']}/{r['sets']}" if r["polish"] else f"({r['equal']}/{r['sets']})"
        print(f"{r['label']:<17} {r['sets']:>4} {r['planted']:>7} {r['called']:>6} "
              f"{100 * share:>6.1f}% {100 * CALLED_TARGET[r['depth']]:>5.0f}% {r['false']:>5} "
              f"{r['false'] / (r['bases'] / 10000):>6.2f} {r['worst_false'][0]:>6.2f} "
              f"{polished:>8}  {'ok' if ok else 'MISSED'}")
    bases = sum(r["bases"] for r in rows)
    false = sum(r["false"] for r in rows)
    overall = false / (bases / 10000) if bases else 0
    worst = max(rows, key=lambda r: r["worst_false"][0])
    print()
    print(f"Scenarios meeting their targets: {met} of {len(rows)}.")
    print(f"False calls over all scenarios: {overall:.2f} per 10 kb (target <= "
          f"{FALSE_PER_10KB_OVERALL}): {'ok' if overall <= FALSE_PER_10KB_OVERALL else 'MISSED'}; "
          f"worst set: {worst['worst_false'][0]:.2f} per 10 kb ({worst['label']} "
          f"{worst['worst_false'][1]}, target <= {FALSE_PER_10KB_EACH_SET}).")
    print_model_table([r for r in rows if r["model"]["state"] != "-"])
    return True


def print_model_table(rows):
    if not rows:
        return
    print()
    print(f"Fitted model against the truth, 12 deep: lengths {MODEL_LENGTHS.start}-"
          f"{MODEL_LENGTHS.stop - 1} of each SFF file, centre within {MODEL_CENTRE}, spread within "
          f"{100 * MODEL_SPREAD:.0f}% of the truth's")
    print(f"{'scenario':<17} {'within':>9}  {'worst centre':<34} {'worst spread':<34} verdict")
    for r in rows:
        m = r["model"]
        if m["state"] != "checked":
            print(f"{r['label']:<17} {m['state']}")
            continue
        centre = f"{m['worst_centre'][0]:+.3f} ({m['worst_centre'][1]})" \
            if m["worst_centre"] else "-"
        spread = f"{100 * m['worst_spread'][0]:+.0f}% ({m['worst_spread'][1]})" \
            if m["worst_spread"] else "-"
        note = f", {m['sets_without']} sets without a model file" if m["sets_without"] else ""
        ok = m["within"] == m["pairs"] and not m["sets_without"]
        print(f"{r['label']:<17} {m['within']:>4}/{m['pairs']:<4}  {centre:<34} {spread:<34} "
              f"{'ok' if ok else 'MISSED'}{note}")


def describe(row):
    text = " ".join(f"{name} {row.get(key, '?')}" for name, key in (
        ("column", "column"), ("position", "position"), ("letter", "letter"),
        ("consensus", "consensus_length"), ("called", "called_length"), ("signals", "signals")))
    text += f" ({row.get('forward', '?')}+/{row.get('reverse', '?')}-) mean " \
            f"{row.get('mean_signal', '?')} score {row.get('score', '?')}"
    for extra in ("qual", "filter"):
        if extra in row:
            text += f" {extra} {row[extra]}"
    return f"{row['contig']} {text}"


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
    if len(argv) == 3 and argv[1] == "table":
        return 0 if print_table(argv[2]) else 1
    if len(argv) >= 2 and argv[1] == "score":
        parser = argparse.ArgumentParser(prog="flowcheck_eval.py score")
        parser.add_argument("--label", required=True)
        parser.add_argument("--depth", type=int, choices=sorted(CALLED_TARGET), required=True)
        parser.add_argument("--polish", choices=("yes", "no"), required=True)
        parser.add_argument("--bases", type=int, required=True)
        parser.add_argument("runs", nargs="+")
        return 0 if score(parser.parse_args(argv[2:])) else 1
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
