"""flowcheck() against the sorvexa-flowcheck program on simulated assemblies with errors
planted in the consensus."""

import subprocess

import pytest

import sorvexa
from conftest import build_program


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
def assembly(tmp_path_factory):
    sim = build_program("tests/support/sim_assembly")
    out = tmp_path_factory.mktemp("flowcheck")
    subprocess.run([sim, "--out", out, "--prefix", "sim", "--contigs", "2", "--length", "3000",
                    "--depth", "10", "--noise", "1.0", "--errors", "6", "--seed", "11"],
                   check=True, capture_output=True)
    return out


@pytest.mark.parametrize("options", [
    {},
    {"all_runs": True},
    {"min_signals": 6, "min_score": 4.0, "sigma_base": 0.1, "sigma_slope": 0.07},
], ids=["defaults", "all", "model"])
def test_same_output_as_the_program(assembly, options):
    program = build_program("flowcheck/sorvexa-flowcheck")
    args = [program, "-o", assembly / "out"]
    for name, value in options.items():
        args += ["--all"] if name == "all_runs" else ["--" + name.replace("_", "-"), str(value)]
    subprocess.run(args + [assembly / "sim.ace", assembly / "sim.sff"], check=True,
                   capture_output=True)
    result = sorvexa.flowcheck(assembly / "sim.ace", [assembly / "sim.sff"], **options)

    assert result.tsv == (assembly / "out.flowcheck.tsv").read_text()
    assert result.vcf(reference="out.consensus.fa", source="sorvexa-flowcheck " + sorvexa.__version__) \
        == (assembly / "out.flowcheck.vcf").read_text()
    assert {c.name: c.polished for c in result.contigs} == fasta(assembly / "out.polished.fa")
    assert {c.name: c.consensus for c in result.contigs} == fasta(assembly / "out.consensus.fa")
    assert result.called == sum(c.applied for c in result.calls) > 0
    lines = result.tsv.splitlines()[1:]
    assert len(lines) == len(result.calls)
    for line, call in zip(lines, result.calls):
        fields = line.split("\t")
        assert fields[:9] == [call.contig, str(call.column), str(call.position), call.letter,
                              str(call.consensus_length), str(call.called_length),
                              str(call.signals), str(call.forward), str(call.reverse)]
        assert abs(float(fields[9]) - call.mean_signal) < 0.01
        assert abs(float(fields[10]) - call.score) < 0.01


def test_polished_sequence_is_the_truth(assembly):
    result = sorvexa.flowcheck(str(assembly / "sim.ace"), str(assembly / "sim.sff"))
    truth = fasta(assembly / "sim.truth.fa")
    assert [c.polished.upper() for c in result.contigs] == [s.upper() for s in truth.values()]
    assert result.reads_tied > 0 and result.reads_not_found == 0


def test_options_are_checked(assembly):
    ace, sff = assembly / "sim.ace", assembly / "sim.sff"
    for bad in ({"min_signals": 0}, {"min_score": -1.0}, {"sigma_base": 0.0},
                {"sigma_slope": float("nan")}):
        with pytest.raises(ValueError):
            sorvexa.flowcheck(ace, sff, **bad)
    with pytest.raises(ValueError):
        sorvexa.flowcheck(ace, [])
    with pytest.raises(FileNotFoundError):
        sorvexa.flowcheck(ace, [sff, assembly / "missing.sff"])
    with pytest.raises(sorvexa.FormatError, match="not a SFF file"):
        sorvexa.flowcheck(ace, [ace])
