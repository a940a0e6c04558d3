"""One measurement of the Python module or of Biopython doing the same, for bench/python.sh.

    python_bench.py MEASURE SFF_FILE [SFF_FILE ...]

Prints the seconds the measured part took (the interpreter's start and imports left out)
and a checksum, so that both sides can be seen to have done the same work:

  iterate-sorvexa, iterate-biopython   every record in file order, its flowgram and
                                       qualities read (their lengths summed)
  index-sorvexa, index-biopython       the read index built, then every read fetched by
                                       name, one at a time, and its flowgram read (the
                                       names shuffled, the same order for every measure)
  batch-sorvexa                        the read index built, then every read fetched by
                                       name at once (SffFile.fetch), flowgrams as one array
  index-only                           sorvexa's read indexes of all files, nothing else
                                       (for the peak RSS)
"""

import sys
import time


def iterate_sorvexa(paths):
    import sorvexa

    total = 0
    for path in paths:
        for r in sorvexa.SffFile(path):
            total += len(r.flowgram) + len(r.qualities)
    return total


def iterate_biopython(paths):
    from Bio import SeqIO

    total = 0
    for path in paths:
        for r in SeqIO.parse(path, "sff"):
            total += len(r.annotations["flow_values"]) + len(r.letter_annotations["phred_quality"])
    return total


def names_shuffled(path):
    """Every name of the file in an order unrelated to the file's, as users look reads up:
    the same order on every run and for both sides."""
    import random

    import sorvexa

    names = sorted(sorvexa.SffFile(path).index())
    random.Random(1).shuffle(names)
    return names


def index_sorvexa(paths, names):
    import sorvexa

    total = 0
    for path, wanted in zip(paths, names):
        f = sorvexa.SffFile(path)
        f.index()
        for name in wanted:
            total += len(f[name].flowgram)
    return total


def batch_sorvexa(paths, names):
    import sorvexa

    total = 0
    for path, wanted in zip(paths, names):
        total += sorvexa.SffFile(path).fetch(wanted).flowgrams.size
    return total


def index_biopython(paths, names):
    from Bio import SeqIO

    total = 0
    for path, wanted in zip(paths, names):
        index = SeqIO.index(path, "sff")
        for name in wanted:
            total += len(index[name].annotations["flow_values"])
        index.close()
    return total


def index_only(paths):
    import sorvexa

    files = [sorvexa.SffFile(path) for path in paths]
    return sum(len(f.index()) for f in files)


def main():
    measure, paths = sys.argv[1], sys.argv[2:]
    setup = {}
    if measure in ("index-sorvexa", "index-biopython", "batch-sorvexa"):
        # The same names in the same order for both sides, found before the clock starts.
        setup["names"] = [names_shuffled(p) for p in paths]
    run = {
        "iterate-sorvexa": iterate_sorvexa,
        "iterate-biopython": iterate_biopython,
        "index-sorvexa": index_sorvexa,
        "index-biopython": index_biopython,
        "batch-sorvexa": batch_sorvexa,
        "index-only": index_only,
    }[measure]
    if measure != "index-only":
        # Imports are not timed: numpy (which sorvexa loads on the first array it hands
        # out) and Biopython are loaded for both sides alike. The peak RSS of the index is
        # taken with sorvexa alone, which loads neither.
        import numpy  # noqa: F401
        import Bio.SeqIO  # noqa: F401
    import sorvexa  # noqa: F401

    start = time.perf_counter()
    checksum = run(paths, **setup)
    print(f"{time.perf_counter() - start:.4f} {checksum}")


if __name__ == "__main__":
    main()
