"""Sorvexa: 454 pyrosequencing assemblies (SFF flowgram files and ACE assemblies) in Python.

The C++ library behind the Sorvexa tools, with its readers, its contig model in flow space
and its homopolymer check:

>>> import sorvexa
>>> sff = sorvexa.SffFile("run_a.sff")
>>> read = sff["E3MFGYR02JWQ7T"]             # one record, fetched through the read index
>>> read.flowgram[:8]                        # flow values in hundredths (numpy uint16)
>>> read.bases[read.kept]                    # the kept bases
>>> for contig in sorvexa.AceFile("run.ace"):
...     counts, rows = contig.align_flow(600, 100)   # a window in flow space
>>> check = sorvexa.flowcheck("run.ace", ["run_a.sff"])   # the model fitted to the run
>>> [(c.position, c.consensus_length, c.called_length, c.filter) for c in check.calls]
>>> open("run.model.tsv", "w").write(check.model_tsv)  # flowcheck(..., model="run.model.tsv")

SffFile
    An SFF file: header, records in file order, a read index and records by name.
SffRecord, KeptRead, ReadIndex
    A record as stored; the read cut to its kept bases as a run writes it; name to offset.
AceFile, Contig, ReadPlacement, FlowRead
    An ACE assembly contig by contig; a contig with its layout, flow consensus, flow
    alignment and maps; where a read lies; a read in a flow alignment row.
AlignmentFile
    Alignments (SAM, BAM, CRAM) and their reference: any stretch of a reference as a
    Contig, reads tied to their flows (FZ/ZF tags, or by name through SFF files).
flowcheck, FlowCheckResult, ContigCheck, RunCall
    The homopolymer check of an assembly against its reads' flow values, as
    sorvexa-flowcheck makes it: the flow values' model fitted per SFF file and run length
    (or read back from a saved model table, or fixed), each run's call with its qual,
    confidence and filter, each contig's coverage, and the program's TSV, VCF and model
    texts.
FormatError, FormatWarning
    A file out of its format (a ValueError); damage a reader went past.

Text from the files (names, bases, maps) is decoded as UTF-8 with "surrogateescape", so
``s.encode("utf-8", "surrogateescape")`` gives the file's bytes back. Files are opened and
read without the GIL. Nothing here ends the interpreter: a file that cannot be opened
raises OSError, a file out of format FormatError.
"""

from ._sorvexa import (
    AceFile,
    AlignmentFile,
    Contig,
    ContigCheck,
    FlowCheckResult,
    FlowRead,
    FormatError,
    FormatWarning,
    ReadIndex,
    ReadIndexIterator,
    ReadPlacement,
    RunCall,
    SffFile,
    SffIterator,
    SffRecord,
    __version__,
    _flowcheck,
    _flowcheck_defaults,
)

import collections.abc as _abc
import math as _math
import numbers as _numbers
import operator as _operator
import os as _os
import re as _re

__all__ = [
    "AceFile",
    "AlignmentFile",
    "Contig",
    "ContigCheck",
    "FlowCheckResult",
    "FlowRead",
    "FormatError",
    "FormatWarning",
    "KeptRead",
    "ReadIndex",
    "ReadPlacement",
    "RunCall",
    "SffBatch",
    "SffFile",
    "SffIterator",
    "SffRecord",
    "flowcheck",
]

# What every Mapping has, on the C++ lookups.
for _method in ("get", "keys", "values", "items"):
    setattr(ReadIndex, _method, getattr(_abc.Mapping, _method))


def _holds(self, name):
    """Whether the index holds a name."""
    return self.get(name) is not None
_abc.Mapping.register(ReadIndex)


class SffBatch:
    """Records fetched at once by SffFile.fetch(names), as numpy arrays: a row a record, in
    file order (as the file was read), each record once however often its name was asked
    for. A row holds what the record fetched alone holds (of a record cut short, the bases
    the file has and a flowgram padded with zeros). The arrays are the batch's own.
    """

    __slots__ = ("_values",)

    def __init__(self, values):
        """The batch of SffFile._fetch's values."""
        self._values = values

    names = property(lambda b: b._values[0], doc="The name of each row (a list).")
    rows = property(lambda b: b._values[1], doc="The row of each name asked for, in the "
                    "order asked (int64): ``flowgrams[rows]`` are the flowgrams in that order.")
    flowgrams = property(lambda b: b._values[2],
                         doc="A flowgram a row, in hundredths ((n, flows_per_read) uint16).")
    offsets = property(lambda b: b._values[3], doc="Where each row's values start in bases, "
                       "qualities and flow_index_per_base, and where the last ends ((n + 1,) "
                       "int64): row i's bases are ``bases[offsets[i]:offsets[i + 1]]``.")
    bases = property(lambda b: b._values[4],
                     doc="Every row's bases, concatenated (numpy 'S1', a letter an element).")
    qualities = property(lambda b: b._values[5],
                         doc="Every row's base qualities, concatenated (uint8).")
    flow_index_per_base = property(lambda b: b._values[6],
                                   doc="Every row's flow index per base, concatenated (uint8).")
    clips = property(lambda b: b._values[7], doc="A row's clip_qual_left, clip_qual_right, "
                     "clip_adapter_left and clip_adapter_right ((n, 4) uint16).")
    record_offsets = property(lambda b: b._values[8],
                              doc="Each row's record offset in the file ((n,) int64, ascending).")

    def __len__(self):
        """The number of rows."""
        return len(self._values[0])


def _fetch(self, names):
    """The records of many read names at once, as an SffBatch (KeyError for a name the
    index does not hold). However the names are ordered, the file is read once, in file order.
    """
    return SffBatch(self._fetch(names))


SffFile.fetch = _fetch


def _itself(self):
    """The object itself: an iterator, or a file in a with statement."""
    return self


def _close_on_exit(self, *exc_info):
    """Closes the file."""
    self.close()


for _cls in (SffFile, AceFile):
    _cls.__enter__, _cls.__exit__ = _itself, _close_on_exit
for _cls in (SffIterator, ReadIndexIterator, AceFile):
    _cls.__iter__ = _itself


def _in_index(self, name):
    """Whether the read index holds a name."""
    return name in self.index()


def _index_length(self):
    """The number of names in the read index."""
    return len(self.index())


SffFile.__contains__, SffFile.__len__ = _in_index, _index_length
ReadIndex.__contains__ = _holds

# How each object shows itself.
_REPRS = {
    SffFile: lambda f: f"{f.path!r}, {f.number_of_reads} reads, {f.byte_order}-endian",
    SffRecord: lambda r: f"{r.name!r}, {len(r)} bases, {len(r.flowgram)} flows",
    SffBatch: lambda b: f"of {len(b)} records",
    ReadIndex: lambda i: f"of {len(i)} reads",
    AceFile: lambda a: f"{a.path!r}, {a.number_of_contigs} contigs",
    Contig: lambda c: f"{c.name!r}, {len(c.consensus)} columns, {len(c.reads)} reads",
    ReadPlacement: lambda r: f"{r.name!r} at {r.start}, {r.length} bases"
    + (", complemented" if r.complemented else ""),
    FlowRead: lambda f: f"{f.name!r}, flows {f.flow_start} to {f.flow_end}",
    RunCall: lambda c: f"{c.contig!r}:{c.position} {c.letter}x{c.consensus_length} -> "
    f"{c.called_length} {c.filter}",
    ContigCheck: lambda c: f"{c.name!r}, {len(c.calls)} listed"
    + (", unchecked" if c.unchecked else ""),
    FlowCheckResult: lambda r: f"{len(r.contigs)} contigs, {r.tested} of {r.runs} runs tested, "
    f"{r.called} called ({r.passed} pass)",
}
for _cls, _text in _REPRS.items():
    _cls.__repr__ = lambda self, _text=_text: f"<sorvexa.{type(self).__name__} {_text(self)}>"

# A 454 read name (universal accession number): six base-36 characters of run time, one
# check character, two digits of region, five base-36 characters of well position.
_UAN = _re.compile(r"[A-Z0-9]{7}[0-9]{2}[A-Z0-9]{5}")
_BASE36 = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"


def _base36(chars):
    value = 0
    for c in chars:
        value = value * 36 + _BASE36.index(c)
    return value


def _uan_annotations(name):
    """The time, region and well coordinates a 454 read name encodes, or {}."""
    if not _UAN.fullmatch(name):
        return {}
    stamp = _base36(name[:6])
    stamp, second = divmod(stamp, 60)
    stamp, minute = divmod(stamp, 60)
    stamp, hour = divmod(stamp, 24)
    stamp, day = divmod(stamp, 32)
    year, month = divmod(stamp, 13)
    return {
        "time": [2000 + year, month, day, hour, minute, second],
        "region": int(name[7:9]),
        "coords": divmod(_base36(name[9:]), 4096),
    }


def _to_seqrecord(record):
    """The record as a Biopython SeqRecord, as Bio.SeqIO.parse(path, "sff") gives it.

    The sequence holds every base, the clipped ones in lower case; the annotations carry
    the flowgram, flow indexes, flow order, key and clips (and, for 454 read names, the
    run time, region and well coordinates), so Bio.SeqIO.write(..., "sff") writes the
    record back. Needs Biopython.
    """
    from Bio.Seq import Seq
    from Bio.SeqRecord import SeqRecord

    # As bytes, which Biopython holds as they are: a damaged file's bases need not be ASCII.
    bases = record.bases.encode("utf-8", "surrogateescape")
    # The kept range from the clips taken as plain numbers (the library's own cut, in
    # record.kept, wraps clips beyond 32767 as 16-bit positions).
    start = max(record.clip_qual_left, record.clip_adapter_left, 1) - 1
    rights = [c for c in (record.clip_qual_right, record.clip_adapter_right) if c != 0]
    stop = max(min(rights + [len(bases)]), start)
    seq = bases[:start].lower() + bases[start:stop].upper() + bases[stop:].lower()
    annotations = {
        "flow_values": tuple(record.flowgram.tolist()),
        "flow_index": tuple(record.flow_index_per_base.tolist()),
        "flow_chars": record.flow_chars,
        "flow_key": record.key,
        # Biopython counts the left clips from 0, the file from 1 (0 for none given).
        "clip_qual_left": max(record.clip_qual_left - 1, 0),
        "clip_qual_right": record.clip_qual_right,
        "clip_adapter_left": max(record.clip_adapter_left - 1, 0),
        "clip_adapter_right": record.clip_adapter_right,
    }
    annotations.update(_uan_annotations(record.name))
    annotations["molecule_type"] = "DNA"
    return SeqRecord(
        Seq(seq),
        id=record.name,
        name=record.name,
        description="",
        annotations=annotations,
        letter_annotations={"phred_quality": record.qualities.tolist()},
    )


SffRecord.to_seqrecord = _to_seqrecord


class KeptRead:
    """A read cut to its kept bases, as a run writes it."""

    __slots__ = ("_name", "_bases", "_qualities", "_flows")

    def __init__(self, name, bases, qualities, flows):
        """A kept read of these values; SffRecord.kept_read() makes them."""
        self._name, self._bases, self._qualities, self._flows = name, bases, qualities, flows

    name = property(lambda self: self._name, doc="The read's name.")
    bases = property(lambda self: self._bases, doc="The kept bases.")
    qualities = property(lambda self: self._qualities,
                         doc="Quality of each kept base (numpy int16).")
    flows = property(lambda self: self._flows,
                     doc="For each kept base, the 0-based flow that called it, counted from "
                     "the read's first flow (numpy int16): an index into the record's flowgram.")

    def __len__(self):
        """The number of kept bases."""
        return len(self._bases)

    def __repr__(self):
        return f"<sorvexa.KeptRead {self._name!r}, {len(self._bases)} bases>"


def _kept_read(record):
    """The read as a run writes it: its kept bases with their qualities and the 0-based
    flow that called each (counted from the read's first flow, key included), as a KeptRead.
    """
    return KeptRead(*record._kept_read())


SffRecord.kept_read = _kept_read


def _number(value, name, positive=False):
    """A finite number of at least 0 (above it when positive), as the program's options take."""
    if not isinstance(value, _numbers.Real):
        raise TypeError(f"{name} must be a number")
    if not _math.isfinite(value) or value < 0 or (positive and value == 0):
        raise ValueError(f"{name} must be a number " + ("above 0" if positive else "of at least 0"))
    return float(value)


_D = _flowcheck_defaults


def flowcheck(ace_path, sff_paths=(), *, reference=None, min_signals=_D["min_signals"],
              min_score=_D["min_score"], min_qual=_D["min_qual"], model=None, sigma_base=None,
              sigma_slope=None, all_runs=False):
    if isinstance(sff_paths, (str, bytes, _os.PathLike)):
        sff_paths = [sff_paths]
    sff_paths = list(sff_paths)
    if not sff_paths and reference is None:
        raise ValueError("flowcheck needs at least one SFF file")
    if not 1 <= _operator.index(min_signals) <= 2**31 - 1:
        raise ValueError("min_signals must be a whole number of at least 1")
    if model is not None and (sigma_base is not None or sigma_slope is not None):
        raise ValueError("model and the fixed model's sigma_base/sigma_slope exclude each other")
    return _flowcheck(
        ace_path, sff_paths, min_signals, _number(min_score, "min_score"),
        _number(min_qual, "min_qual"), model,
        None if sigma_base is None else _number(sigma_base, "sigma_base", positive=True),
        None if sigma_slope is None else _number(sigma_slope, "sigma_slope"), bool(all_runs),
        reference)


# The defaults come from the library's own, so that the text cannot drift from them.
flowcheck.__doc__ = f"""Weighs every homopolymer run of an assembly's consensus against the
flow values its 454 reads measured, as sorvexa-flowcheck does, with the same calls and texts.

ace_path is the ACE file; sff_paths one SFF path or a sequence of them (a read is taken
from the first file that holds it). With reference (a FASTA file), ace_path is instead a
SAM, BAM or CRAM file of reads aligned to it, sorted by coordinate (BAM and CRAM indexed), as
sorvexa-flowcheck --bam reads it: each reference sequence is a contig, the reads carry their
flows in FZ/ZF tags or are found by name in sff_paths (then optional).

The flow values' spread per SFF file and run length is fitted to the assembly's own
signals, from its first contigs, as the program fits it. model, the path of a model table
(a FlowCheckResult's model_tsv saved, or the program's PREFIX.flowcheck.model.tsv), uses
that model instead. Giving sigma_base or sigma_slope uses the fixed model, values of a run
of length n normal with spread sigma_base + sigma_slope * n (the other one at its default,
{_D["sigma_base"]:.2f} and {_D["sigma_slope"]:.2f}); it excludes model.

A run is weighed when it has at least min_signals values and the model names its length
with a confidence of min_qual (phred) or more; a call needs that, a qual of min_qual and
a score of min_score. Only passing calls change the polished sequence. The result lists
the runs with a call, or with all_runs every weighed run.

Bad options raise ValueError; a model table that cannot be read as one, FormatError.
Runs without the GIL.
"""


for _name in __all__:
    globals()[_name].__module__ = __name__
