"""AceFile against Biopython's reading of the shared ACE files, and every contig operation
against the library's own results on the same contigs."""

import subprocess

import numpy as np
import pytest
from Bio.Sequencing import Ace

import sorvexa
from conftest import BUILD, build_program, reference_blocks, sample_files

ACE_FILES = sample_files("*.ace")


def read_contigs(path):
    """Our contigs, and the FormatError that stopped the reader (or None)."""
    contigs = []
    try:
        for c in sorvexa.AceFile(path):
            contigs.append(c)
    except sorvexa.FormatError as e:
        return contigs, e
    return contigs, None


@pytest.mark.skipif(not ACE_FILES, reason="no shared sample ACE files")
@pytest.mark.parametrize("path", ACE_FILES, ids=lambda p: p.name)
def test_contigs_equal_biopython(path):
    with open(path) as h:
        bio = list(Ace.parse(h))
    contigs, error = read_contigs(path)
    if error is not None:
        # An assembler that writes no BS lines breaks the section order the reader takes.
        assert "tag 'RD' should be not in the ACE file" in str(error)
    else:
        assert len(contigs) == len(bio)
    for c, b in zip(contigs, bio):
        assert (c.name, c.consensus, c.number_of_bases, c.number_of_reads) == (
            b.name, b.sequence, b.nbases, b.nreads)
        assert c.complemented == (b.uorc == "C")
        # A read listed twice keeps its later placement.
        expected = {}
        for af, read in zip(b.af, b.reads):
            expected[af.name] = (af.padded_start, af.coru == "C", read.rd.sequence,
                                 read.rd.padded_bases, read.qa.align_clipping_start,
                                 read.qa.align_clipping_end)
        got = {name: (p.start, p.complemented, p.sequence, p.length, p.align_clip_start,
                      p.align_clip_end) for name, p in c.reads.items()}
        assert got == expected
        assert all(p.name == name for name, p in c.reads.items())


def serialise(c):
    """The contig's operations in the reference program's block form."""
    blocks = [("contig", c.name), ("layout", "".join(
        "".join(f"{s},{n} " for s, n in row) + "\n" for row in c.layout()))]
    blocks.append(("flow_consensus", c.flow_consensus))
    length = len(c.consensus)
    blocks.append(("flow_range", "".join(
        "%d,%d " % c.flow_range(col) for col in range(0, length + 2))))
    blocks.append(("full_align_map", c.full_align_map()))
    blocks.append(("full_align_map.html", c.full_align_map(html=True)))
    for start in (1, length // 2, max(1, length - 20), length + 5):
        w = f"{start}:60:"
        counts, rows = c.align_flow(start, 60)
        assert counts.dtype == np.int16 and counts.shape[1] == len(rows)
        blocks.append((w + "align_flow.counts", "".join(
            "".join(f"{v} " for v in line) + "\n" for line in counts.tolist())))
        blocks.append((w + "align_flow.rows", "".join(
            "".join(f"{f.name},{f.flow_start},{f.flow_end} " for f in row) + "\n"
            for row in rows)))
        columns, seq_rows = c.align_seq(start, 60)
        blocks.append((w + "align_seq.columns", "".join(col + "\n" for col in columns)))
        blocks.append((w + "align_seq.rows", "".join(
            "".join(f"{last},{name} " for last, name in row) + "\n" for row in seq_rows)))
        for key, (text, names) in [
            ("flow_map", c.flow_map(start, 60)),
            ("flow_map.html", c.flow_map(start, 60, html=True)),
            ("flow_map.spaced", c.flow_map(start, 60, html=True, spaced=True)),
            ("align_map", c.align_map(start, 60)),
            ("align_map.html", c.align_map(start, 60, html=True)),
        ]:
            blocks.append((w + key, text))
            blocks.append((w + key + ".names", "".join(n + "\n" for n in names)))
    return [(k, v.encode("utf-8", "surrogateescape")) for k, v in blocks]


@pytest.fixture(scope="module")
def simulated(tmp_path_factory):
    """A small simulated assembly: two contigs of reads that carry flows and pads."""
    sim = build_program("tests/support/sim_assembly")
    out = tmp_path_factory.mktemp("sim")
    subprocess.run([sim, "--out", out, "--prefix", "sim", "--contigs", "2", "--length", "1500",
                    "--depth", "8", "--noise", "1.0", "--errors", "4", "--seed", "3"],
                   check=True, capture_output=True)
    return out


def flow_inputs():
    inputs = [pytest.param(p, id=p.name) for p in ACE_FILES]
    inputs.append(pytest.param("simulated", id="simulated"))
    if BUILD is not None:
        inputs.append(pytest.param(BUILD / "example" / "example.ace", id="example"))
    return inputs


@pytest.mark.parametrize("path", flow_inputs())
def test_flow_operations_equal_the_library(path, simulated):
    if path == "simulated":
        path = simulated / "sim.ace"
    if not path.exists():
        pytest.skip(f"{path} is not there")
    expected = reference_blocks("ace", path)
    contigs, error = read_contigs(path)
    if expected is None:  # the library rejects the file; the module said so too
        assert error is not None
        return
    got = [block for c in contigs for block in serialise(c)]
    assert [k for k, _ in got] == [k for k, _ in expected]
    for (key, mine), (_, theirs) in zip(got, expected):
        assert mine == theirs, key


def test_window_options_and_colours(simulated):
    c = next(sorvexa.AceFile(simulated / "sim.ace"))
    with pytest.raises(ValueError):
        c.flow_map(1, 40, spaced=True)
    text, _ = c.flow_map(1, 40, html=True, colors={"A": "red"})
    assert "<font color=red>" in text and "#2166ac" not in text
    with pytest.raises(ValueError):
        c.align_map(1, 40, html=True, colors={"AC": "red"})
    # Placements stay valid after their contig and file are gone.
    read = next(iter(c.reads.values()))
    del c
    assert read.length == len(read.sequence)
