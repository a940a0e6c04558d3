"""Errors come back as Python exceptions and warnings, and hostile input never ends the
interpreter: every seed of the fuzz corpora is fed to every reader and operation."""

import os
import struct
import types
import warnings

import pytest

import sorvexa
from conftest import CORPUS, write_sff

SFF_SEED = CORPUS / "sff" / "big_endian.sff"


def test_files_that_cannot_be_opened(tmp_path):
    missing = tmp_path / "missing.sff"
    for open_file in (sorvexa.SffFile, sorvexa.AceFile):
        with pytest.raises(FileNotFoundError) as e:
            open_file(missing)
        assert e.value.filename == missing
        with pytest.raises(IsADirectoryError):
            open_file(str(tmp_path))
        with pytest.raises(ValueError, match="null byte"):
            open_file("a\0b")
        with pytest.raises(TypeError):
            open_file(42)
    if os.geteuid() != 0:  # root reads anything
        locked = tmp_path / "locked.sff"
        locked.write_bytes(b"")
        locked.chmod(0)
        with pytest.raises(PermissionError):
            sorvexa.SffFile(locked)


def test_files_out_of_format(tmp_path):
    ace = tmp_path / "x.ace"
    ace.write_text("AS 1 1\n\nCO c 3 1 1 U\nAAA\n\nAF r U 1\n")
    with pytest.raises(sorvexa.FormatError, match=r"The input file .*x\.ace is not a SFF file"):
        sorvexa.SffFile(ace)
    short = tmp_path / "short.sff"
    short.write_bytes(b".sff\0\0")
    with pytest.raises(sorvexa.FormatError, match="Only got 6 bytes"):
        sorvexa.SffFile(short)
    with pytest.raises(sorvexa.FormatError, match="does not like an ACE file"):
        sorvexa.AceFile(SFF_SEED)
    assert issubclass(sorvexa.FormatError, ValueError)

    # A contig whose sections come out of order: the contig is lost, the file ends there.
    ace.write_text("AS 2 1\n\nCO c 3 1 1 U\nAAA\n\nBQ\n1 1 1\n\nRD r 3 0 0\nAAA\n\n"
                   "QA 1 3 1 3\nDS \n")
    f = sorvexa.AceFile(ace)
    with pytest.raises(sorvexa.FormatError, match="tag 'RD' should be not in the ACE file"):
        next(f)
    with pytest.raises(StopIteration):
        next(f)


def test_a_file_cut_short_warns_and_keeps_what_came_before(tmp_path):
    whole = tmp_path / "whole.sff"
    recs = [{"name": f"r{k}", "bases": "TCAGA", "qualities": [30] * 5, "flowgram": [100] * 8,
             "flow_index": [1, 2, 1, 1, 2], "clips": (5, 0, 0, 0)} for k in range(3)]
    write_sff(whole, recs, "TACGTACG", "TCAG", little_endian=False)
    cut = tmp_path / "cut.sff"
    data = whole.read_bytes()
    cut.write_bytes(data[: len(data) - 50])  # into the last fixed part
    with pytest.warns(sorvexa.FormatWarning, match="reach end of file|Error ocurred"):
        names = [r.name for r in sorvexa.SffFile(cut)]
    assert names[:2] == ["r0", "r1"]
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(sorvexa.FormatWarning):
            list(sorvexa.SffFile(cut))


def test_closed_files(tmp_path):
    with sorvexa.SffFile(SFF_SEED) as f:
        walk = iter(f)
    with pytest.raises(ValueError, match="closed"):
        f.index()
    assert next(walk).name  # an iterator made before reads on
    with sorvexa.AceFile(CORPUS / "ace" / "small.ace") as a:
        pass
    assert list(a) == []


def framed_run_input(data):
    """The fuzz_run input layout: flags, then an ACE file and up to two SFF files."""
    def take(n):
        nonlocal data
        part, data = data[:n], data[n:]
        return part

    flags = take(1)[0] if data else 0
    ace = take(struct.unpack("<I", take(4).ljust(4, b"\0"))[0])
    sff1 = take(struct.unpack("<I", take(4).ljust(4, b"\0"))[0])
    files = [ace, sff1] + ([data] if flags & 2 else [])
    return files


def exercise_sff(path):
    f = sorvexa.SffFile(path)
    for r in f:
        r.flowgram.sum(), r.qualities.sum(), r.bases[r.kept], r.kept_read(), r.to_seqrecord()
    for name, offset in f.index().items():
        assert name in f
        f.record_at(offset).kept_read()
    f.record_at(10**12)


def exercise_ace(path):
    for c in sorvexa.AceFile(path):
        c.reads, c.layout(), c.read_ids(), c.flow_consensus, c.full_align_map(html=True)
        n = len(c.consensus)
        for start, width in ((1, 60), (n // 2, 30), (n + 3, 10), (-5, 20), (1, 0), (5, -3)):
            c.align_flow(start, width), c.align_seq(start, width), c.flow_range(start)
            c.flow_map(start, width), c.flow_map(start, width, html=True, spaced=True)
            c.align_map(start, width), c.align_map(start, width, html=True)


def corpus_files():
    return [pytest.param(p, id=f"{p.parent.name}/{p.name}")
            for p in sorted(CORPUS.glob("*/*")) if p.is_file()]


@pytest.mark.parametrize("seed", corpus_files())
def test_fuzz_seeds_end_in_results_or_format_errors(seed, tmp_path):
    if seed.parent.name == "run":
        parts = framed_run_input(seed.read_bytes())
    else:  # every seed is tried as both kinds of file
        parts = [seed.read_bytes()] * 2
    ace, sffs = tmp_path / "x.ace", []
    ace.write_bytes(parts[0])
    for k, part in enumerate(parts[1:]):
        sffs.append(tmp_path / f"{k}.sff")
        sffs[-1].write_bytes(part)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", sorvexa.FormatWarning)
        for step in [lambda: exercise_ace(ace)] + [lambda p=p: exercise_sff(p) for p in sffs] + [
                lambda: sorvexa.flowcheck(ace, sffs, all_runs=True).vcf()]:
            try:
                step()
            except sorvexa.FormatError:
                pass


def test_every_public_name_is_documented():
    """help(sorvexa) reads as documentation: every class, function, method and property
    says what it is beyond pybind11's signature line."""
    undocumented = []
    for name in sorvexa.__all__:
        obj = getattr(sorvexa, name)
        if not (obj.__doc__ or "").strip():
            undocumented.append(name)
        if not isinstance(obj, type) or issubclass(obj, Exception):
            continue
        constructible = "__init__" in vars(obj) and "Initialize self" not in (vars(obj)["__init__"].__doc__ or "")
        for attr, value in vars(obj).items():
            if attr == "__init__" and not constructible:
                continue
            if attr.startswith("_") and attr not in {"__init__", "__iter__", "__next__", "__len__",
                                                       "__getitem__", "__contains__", "__enter__",
                                                       "__exit__"}:
                continue
            lines = [line for line in (getattr(value, "__doc__", None) or "").splitlines() if line.strip()]
            # Properties, slots, functions written in Python and the slot wrappers whose
            # text is the interpreter's own need one line; pybind11's methods give a
            # signature line besides.
            one_line = (property, types.GetSetDescriptorType, types.WrapperDescriptorType,
                        types.MemberDescriptorType, types.FunctionType)
            if len(lines) < (1 if isinstance(value, one_line) else 2):
                undocumented.append(f"{name}.{attr}")
    assert undocumented == []
