"""flowcheck() against the sorvexa-flowcheck program: on the bundled example, on simulated
assemblies with errors planted in the consensus, and on a small hand-made assembly whose
strands disagree about a run and one of whose contigs has no reads in the SFF file."""

import pathlib
import random
import re
import shutil
import subprocess

import pytest

import sorvexa
from conftest import BUILD, build_program, write_sff


def fasta(path):
    out, name = {}, None
    for line in path.read_text().splitlines():
        if line.startswith(">"):
            name = line[1:]
            out[name] = ""
        else:
            out[name] += line
    return out


@pytest.fixture(scope="module")
def simulated(tmp_path_factory):
    """Two contigs with planted errors, the reads dealt between two SFF files."""
    sim = build_program("tests/support/sim_assembly")
    out = tmp_path_factory.mktemp("flowcheck")
    subprocess.run([sim, "--out", out, "--prefix", "sim", "--contigs", "2", "--length", "3000",
                    "--depth", "10", "--noise", "1.0", "--errors", "6", "--seed", "11",
                    "--files", "2", "--noise2", "1.4"],
                   check=True, capture_output=True)
    return out / "sim.ace", [out / "sim.sff", out / "sim_b.sff"]


@pytest.fixture(scope="module")
def example():
    if BUILD is None or not (BUILD / "example" / "example.ace").exists():
        pytest.skip("the build's example data set is not there")
    d = BUILD / "example"
    return d / "example.ace", [d / "example_a.sff", d / "example_b.sff"]


# The hand-made contig: no run longer than a base but GG, which the forward reads' flows
# measure as three bases and the complemented reads' as two.
STRAND = "ACTGATCAGTCATGCAGGTCATGACTGATCGTAGCTAGCATCGA"
ORPHAN = "TGCATCAGTACGATCGTAGCATGCATCA"
FLOWS, KEY = "TACG" * 60, "TCAG"
COMPLEMENT = str.maketrans("ACGT", "TGCA")


def flowgram(bases, rng, run_at=None, run_value=None):
    """Flow values (hundredths, with a little noise) and flow index steps calling `bases`;
    the flow of the bases from `run_at` measures `run_value` instead."""
    values, steps, i, last = [], [], 0, 0
    for k, flow in enumerate(FLOWS):
        n = 0
        while i + n < len(bases) and bases[i + n] == flow:
            n += 1
        value = run_value if run_at is not None and i == run_at and n else n * 100
        values.append(max(0, round(value + rng.gauss(0, 6))))
        for _ in range(n):
            steps.append(k + 1 - last)
            last = k + 1
        i += n
    assert i == len(bases)
    return values, steps


@pytest.fixture(scope="module")
def handmade(tmp_path_factory):
    """Contig Strand with ten forward and five complemented reads over the whole of it;
    contig Orphan with four reads in no SFF file."""
    out = tmp_path_factory.mktemp("handmade")
    rng = random.Random(5)
    run = STRAND.index("GG")
    reads, records = [], []
    for k in range(15):
        complemented = k >= 10
        name = f"R{k:02}"
        bases = STRAND.translate(COMPLEMENT)[::-1] if complemented else STRAND
        at = len(STRAND) - run - 2 if complemented else run
        values, steps = flowgram(KEY + bases, rng, len(KEY) + at, 200 if complemented else 300)
        records.append({"name": name, "bases": KEY + bases, "flowgram": values,
                        "flow_index": steps, "qualities": [30] * (len(bases) + 4),
                        "clips": (5, 0, 0, 0)})
        reads.append((name, "C" if complemented else "U", STRAND))
    orphans = [(f"X{k}", "U", ORPHAN) for k in range(4)]
    ace = [f"AS 2 {len(reads) + len(orphans)}", ""]
    for contig, consensus, rows in (("Strand", STRAND, reads), ("Orphan", ORPHAN, orphans)):
        ace += [f"CO {contig} {len(consensus)} {len(rows)} 1 U", consensus, "", "BQ",
                " ".join(["30"] * len(consensus)), ""]
        ace += [f"AF {name} {strand} 1" for name, strand, _ in rows]
        ace += [f"BS 1 {len(consensus)} {rows[0][0]}", ""]
        for name, _, seq in rows:
            ace += [f"RD {name} {len(seq)} 0 0", seq, "", f"QA 1 {len(seq)} 1 {len(seq)}",
                    f"DS CHROMAT_FILE: {name}", ""]
    (out / "hand.ace").write_text("\n".join(ace) + "\n")
    write_sff(out / "hand.sff", records, FLOWS, KEY, little_endian=False)
    return out / "hand.ace", [out / "hand.sff"]


COVERAGE = re.compile(r"# (\S+): (\d+) reads \((\d+) tied, (\d+) untied, (\d+) in no SFF file\), "
                      r"(\d+) of (\d+) runs tested: (checked|unchecked)")
SUMMARY = re.compile(r"(\d+) contigs \((\d+) unchecked\), (\d+) of (\d+) runs tested, (\d+) called "
                     r"different \((\d+) pass\); reads: (\d+) tied, (\d+) untied, (\d+) in no SFF")


def program_run(data, options, out):
    """The program's files and summary for flowcheck()'s keyword options."""
    args = [build_program("flowcheck/sorvexa-flowcheck"), "-o", out]
    for name, value in options.items():
        args += (["--all"] if name == "all_runs" else ["--ref", str(value), "--bam"]
                 if name == "reference" else ["--" + name.replace("_", "-"), str(value)])
    done = subprocess.run(args + [data[0], *data[1]], check=True, capture_output=True, text=True)
    files = {key: pathlib.Path(f"{out}.{key}") for key in (
        "flowcheck.tsv", "flowcheck.model.tsv", "flowcheck.vcf", "consensus.fa", "polished.fa")}
    return files, SUMMARY.search(done.stderr).groups()


def assert_same_as_the_program(data, options, out):
    files, summary = program_run(data, options, out)
    result = sorvexa.flowcheck(*data, **options)

    assert result.tsv == files["flowcheck.tsv"].read_text()
    assert result.model_tsv == files["flowcheck.model.tsv"].read_text()
    assert result.vcf(reference=f"{out.name}.consensus.fa",
                      source="sorvexa-flowcheck " + sorvexa.__version__) \
        == files["flowcheck.vcf"].read_text()
    assert {c.name: c.consensus for c in result.contigs} == fasta(files["consensus.fa"])
    assert {c.name: c.polished for c in result.contigs} == fasta(files["polished.fa"])
    unchecked = sum(c.unchecked for c in result.contigs)
    assert summary == tuple(str(v) for v in (
        len(result.contigs), unchecked, result.tested, result.runs, result.called, result.passed,
        result.reads_tied, result.reads_untied, result.reads_not_found))

    # The model's lines are the table's, unrounded.
    model_lines = result.model_tsv.splitlines()[1:]
    assert [f"{m['file']}\t{m['length']}\t{m['signals']}\t{m['centre']:.4f}\t{m['spread']:.4f}\t"
            f"{m['outlier_rate']:.5f}\t{m['source']}" for m in result.model] == model_lines
    # The objects hold what the TSV lines say, contig by contig.
    lines = iter(result.tsv.splitlines()[1:])
    for contig in result.contigs:
        name, *counts, status = COVERAGE.fullmatch(next(lines)).groups()
        assert (name, status == "unchecked") == (contig.name, contig.unchecked)
        assert [int(v) for v in counts] == [
            contig.reads_tied + contig.reads_untied + contig.reads_not_found, contig.reads_tied,
            contig.reads_untied, contig.reads_not_found, contig.tested, contig.runs]
        for call in contig.calls:
            fields = next(lines).split("\t")
            assert fields[:9] + fields[13:] == [
                call.contig, str(call.column), str(call.position), call.letter,
                str(call.consensus_length), str(call.called_length), str(call.signals),
                str(call.forward), str(call.reverse), call.filter]
            # Two decimals, rounded.
            assert [float(v) for v in fields[9:13]] == pytest.approx(
                [call.mean_signal, call.score, call.qual, call.confidence], abs=0.0051)
            assert call.applied <= (call.filter == "PASS")
    assert next(lines, None) is None
    assert result.passed == sum(c.applied for c in result.calls)
    return result


@pytest.mark.parametrize("dataset, options", [
    ("example", {}),
    ("example", {"all_runs": True, "min_qual": 30, "min_signals": 4}),
    ("simulated", {}),
    ("simulated", {"min_signals": 6, "min_score": 4.0, "sigma_base": 0.1, "sigma_slope": 0.07}),
    ("handmade", {}),
    ("handmade", {"sigma_slope": 0.05, "all_runs": True}),
], ids=["example", "example-all", "simulated", "simulated-fixed", "handmade",
        "handmade-slope-only"])
def test_same_output_as_the_program(request, dataset, options, tmp_path):
    result = assert_same_as_the_program(request.getfixturevalue(dataset), options, tmp_path / "out")
    if dataset == "simulated":
        assert result.passed > 0


def test_polished_sequence_is_the_truth(simulated):
    result = sorvexa.flowcheck(str(simulated[0]), [str(p) for p in simulated[1]])
    truth = fasta(simulated[0].with_name("sim.truth.fa"))
    assert [c.polished.upper() for c in result.contigs] == [s.upper() for s in truth.values()]
    assert result.reads_tied > 0 and result.reads_not_found == 0
    assert not any(c.unchecked for c in result.contigs)
    assert {m["source"] for m in result.model} >= {"estimated"}


@pytest.fixture(scope="module")
def aligned(simulated, tmp_path_factory):
    """The simulated reads aligned with minimap2 to the consensus, planted errors and all."""
    if not (shutil.which("minimap2") and shutil.which("samtools")):
        pytest.skip("minimap2 or samtools is missing")
    sff2bam = build_program("sff2bam/sorvexa-sff2bam")
    out = tmp_path_factory.mktemp("aligned")
    ref = out / "ref.fa"
    contigs = sorvexa.flowcheck(*simulated, sigma_base=0.1).contigs
    ref.write_text("".join(f">{c.name}\n{c.consensus}\n" for c in contigs))
    subprocess.run([sff2bam, "-o", out / "reads.bam", *simulated[1]], check=True,
                   capture_output=True)
    header = subprocess.run(["samtools", "view", "-H", out / "reads.bam"], check=True,
                            capture_output=True, text=True).stdout
    groups = "".join(line + "\n" for line in header.splitlines() if line.startswith("@RG"))
    (out / "reads.fq").write_text(subprocess.run(
        ["samtools", "fastq", "-T", "FZ,ZF,RG", out / "reads.bam"], check=True,
        capture_output=True, text=True).stdout)
    sam = subprocess.run(["minimap2", "-y", "-ax", "sr", ref, out / "reads.fq"], check=True,
                         capture_output=True, text=True).stdout
    first, rest = sam.split("\n", 1)
    subprocess.run(["samtools", "sort", "-o", out / "aln.bam", "-"], check=True,
                   input=first + "\n" + groups + rest, text=True, capture_output=True)
    subprocess.run(["samtools", "index", out / "aln.bam"], check=True)
    return out / "aln.bam", ref


def test_alignments_give_the_program_output_and_the_truth(simulated, aligned, tmp_path):
    bam, ref = aligned
    result = assert_same_as_the_program((bam, []), {"reference": ref}, tmp_path / "out")
    truth = fasta(simulated[0].with_name("sim.truth.fa"))
    assert [c.polished.upper() for c in result.contigs] == [s.upper() for s in truth.values()]
    # The simulator calls a base on a flow under 0.51 now and then (10 of these 164 reads): the
    # flows do not call such a read's bases, and it is left untied.
    assert result.reads_untied * 10 <= result.reads_tied and result.reads_not_found == 0
    assert {m["file"] for m in result.model} >= {"RG:sim", "RG:sim_b"}


def test_an_alignment_window_is_a_contig_of_the_reference(aligned):
    bam, ref = aligned
    f = sorvexa.AlignmentFile(bam, ref)
    refs = fasta(ref)
    assert f.references == [(name, len(bases)) for name, bases in refs.items()]
    name = f.references[0][0]
    offset, c = f.window(name, 1000, 1400, margin=300)
    assert offset == 700 and c.name == name
    assert c.consensus.replace("*", "").upper() == refs[name][700:1700].upper()
    assert c.reads and all(r.start <= len(c.consensus) for r in c.reads.values())
    drawn, rows = c.flow_map(300, 400)
    assert drawn and rows
    with pytest.raises(KeyError):
        f.window("no such reference", 0, 1)
    with pytest.raises(ValueError):
        f.window(name, 10, 5)


def test_saved_model_gives_the_same_calls(simulated, tmp_path):
    fitted = sorvexa.flowcheck(*simulated)
    saved = tmp_path / "model.tsv"
    saved.write_text(fitted.model_tsv)
    again = assert_same_as_the_program(simulated, {"model": saved}, tmp_path / "out")

    assert again.model_tsv == fitted.model_tsv
    def calls(result):
        return [(c.contig, c.position, c.letter, c.consensus_length, c.called_length, c.filter,
                 c.applied) for c in result.calls]
    assert calls(again) == calls(fitted) and calls(fitted)
    assert [c.polished for c in again.contigs] == [c.polished for c in fitted.contigs]


def test_strand_conflict_is_reported_not_applied_and_orphans_unchecked(handmade):
    result = sorvexa.flowcheck(*handmade, sigma_base=0.12)
    strand, orphan = result.contigs
    [call] = strand.calls
    assert (call.position, call.letter, call.consensus_length, call.called_length) \
        == (STRAND.index("GG") + 1, "G", 2, 3)
    assert (call.forward, call.reverse, call.filter, call.applied) == (10, 5, "StrandConflict", False)
    assert call.qual >= 20 and result.called == 1 and result.passed == 0
    assert strand.polished == strand.consensus == STRAND
    assert "\tStrandConflict\t" in result.vcf()
    assert (strand.reads_tied, strand.unchecked) == (15, False)
    assert (orphan.reads_tied, orphan.reads_not_found, orphan.tested, orphan.unchecked) \
        == (0, 4, 0, True)
    assert "Status=unchecked" in result.vcf() and "unchecked" in repr(orphan)
    # The fixed model for the one file, under its name.
    assert {(m["file"], m["source"]) for m in result.model} == {(str(handmade[1][0]), "fixed"),
                                                                  ("*", "fixed")}


@pytest.mark.parametrize("options", [
    {"min_signals": 0}, {"min_score": -1.0}, {"min_qual": -0.5}, {"min_qual": float("nan")},
    {"sigma_base": 0.0}, {"sigma_slope": -0.1}, {"sigma_slope": float("inf")},
    {"model": "model.tsv", "sigma_base": 0.2},
], ids=lambda o: ",".join(o))
def test_bad_options_are_refused_as_the_program_refuses_them(handmade, options, tmp_path):
    (tmp_path / "model.tsv").write_text("")
    if "model" in options:
        options = dict(options, model=tmp_path / "model.tsv")
    with pytest.raises(ValueError):
        sorvexa.flowcheck(*handmade, **options)
    with pytest.raises(subprocess.CalledProcessError) as refused:
        program_run(handmade, options, tmp_path / "out")
    assert refused.value.returncode == 2


def test_bad_inputs(handmade, tmp_path):
    ace, [sff] = handmade
    with pytest.raises(ValueError):
        sorvexa.flowcheck(ace, [])
    with pytest.raises(FileNotFoundError):
        sorvexa.flowcheck(ace, [sff, tmp_path / "missing.sff"])
    with pytest.raises(sorvexa.FormatError, match="not a SFF file"):
        sorvexa.flowcheck(ace, [ace])
    with pytest.raises(FileNotFoundError):
        sorvexa.flowcheck(ace, sff, model=tmp_path / "missing.tsv")
    bad = tmp_path / "bad.tsv"
    bad.write_text("file\tlength\tsignals\tcentre\tspread\toutlier_rate\tsource\n*\t1\t5\t1.0\t0\t0.01\tfixed\n")
    with pytest.raises(sorvexa.FormatError, match="line 2 is not a model line"):
        sorvexa.flowcheck(ace, sff, model=bad)
