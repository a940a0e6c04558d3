"""SffFile against Biopython's reading of the shared real files, and against the library's
own index and kept reads."""

import io
import warnings

import pytest
from Bio import SeqIO

import sorvexa
from conftest import reference_blocks, sample_files, write_sff

SFF_FILES = sample_files("*.sff")
needs_samples = pytest.mark.skipif(not SFF_FILES, reason="no shared sample SFF files")


def biopython_records(path):
    """What Bio.SeqIO reads of a file, up to where it gives up (concatenated files)."""
    out = []
    try:
        for r in SeqIO.parse(str(path), "sff"):
            out.append(r)
    except ValueError:
        pass
    return out


def raw(bio):
    """A Biopython record as the file holds it: clips 1-based, bases upper case."""
    a = bio.annotations

    def left(clip):  # Biopython makes left clips 0-based
        return clip + 1 if clip > 0 else 0

    return {
        "name": bio.id,
        "bases": str(bio.seq).upper(),
        "qualities": bio.letter_annotations["phred_quality"],
        "flowgram": list(a["flow_values"]),
        "flow_index": list(a["flow_index"]),
        "clips": (left(a["clip_qual_left"]), a["clip_qual_right"],
                  left(a["clip_adapter_left"]), a["clip_adapter_right"]),
    }


def ours(r):
    return {
        "name": r.name,
        "bases": r.bases,
        "qualities": r.qualities.tolist(),
        "flowgram": r.flowgram.tolist(),
        "flow_index": r.flow_index_per_base.tolist(),
        "clips": (r.clip_qual_left, r.clip_qual_right, r.clip_adapter_left, r.clip_adapter_right),
    }


def rewrite(path, tmp_path, little_endian):
    """The records Biopython reads, written again in one byte order without an index."""
    bio = biopython_records(path)
    a = bio[0].annotations
    out = tmp_path / ("le.sff" if little_endian else "be.sff")
    write_sff(out, [raw(b) for b in bio], a["flow_chars"], a["flow_key"], little_endian)
    return out, bio


@needs_samples
@pytest.mark.parametrize("path", SFF_FILES, ids=lambda p: p.name)
def test_records_equal_biopython(path, tmp_path):
    bio = biopython_records(path)
    assert bio, "Biopython reads every sample file at least in part"
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", sorvexa.FormatWarning)
        f = sorvexa.SffFile(path)
        records = list(f)
    assert f.byte_order == "big"
    assert f.flow_chars == bio[0].annotations["flow_chars"]
    assert f.key == bio[0].annotations["flow_key"]
    # A concatenated file holds more than Biopython reads: the walk stops at the count the
    # header declares, which is what Biopython read before it gave up.
    assert [ours(r) for r in records[: len(bio)]] == [raw(b) for b in bio]

    for little_endian in (False, True):
        copy, _ = rewrite(path, tmp_path, little_endian)
        g = sorvexa.SffFile(copy)
        assert g.byte_order == ("little" if little_endian else "big")
        assert [ours(r) for r in g] == [raw(b) for b in bio]
        assert {name: ours(g[name]) for name in g.index()} == {b.id: raw(b) for b in bio}


@needs_samples
@pytest.mark.parametrize("path", SFF_FILES, ids=lambda p: p.name)
def test_index_and_kept_reads_equal_the_library(path):
    blocks = reference_blocks("sff", path)
    assert blocks is not None
    expected = {}
    for k in range(0, len(blocks), 6):
        entry = dict(blocks[k : k + 6])
        expected[entry["name"].decode()] = entry
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", sorvexa.FormatWarning)
        f = sorvexa.SffFile(path)
        index = f.index()
    assert sorted(index.keys()) == sorted(expected)
    assert len(f) == len(index) == len(expected)
    for name, offset in index.items():
        assert offset == int(expected[name]["offset"])
        kept = f.record_at(offset).kept_read()
        assert kept.name.encode("utf-8", "surrogateescape") == expected[name]["kept.name"]
        assert kept.bases.encode("utf-8", "surrogateescape") == expected[name]["kept.bases"]
        assert kept.qualities.tolist() == [int(v) for v in expected[name]["kept.qualities"].split()]
        assert kept.flows.tolist() == [int(v) for v in expected[name]["kept.flows"].split()]


@needs_samples
def test_seqrecord_equals_biopython_and_writes_back(tmp_path):
    path = next(p for p in SFF_FILES if "random_10" in p.name)
    bio = biopython_records(path)
    mine = [r.to_seqrecord() for r in sorvexa.SffFile(path)]
    for a, b in zip(mine, bio):
        assert (a.id, a.name, a.description, str(a.seq)) == (b.id, b.name, b.description, str(b.seq))
        assert a.annotations == b.annotations
        assert a.letter_annotations == b.letter_annotations

    handle = io.BytesIO()
    SeqIO.write(mine, handle, "sff")
    copy = tmp_path / "written.sff"
    copy.write_bytes(handle.getvalue())
    assert [ours(r) for r in sorvexa.SffFile(copy)] == [ours(r) for r in sorvexa.SffFile(path)]


def test_records_are_read_only_views_that_outlive_their_file(tmp_path):
    copy = tmp_path / "one.sff"
    write_sff(copy, [{"name": "r1", "bases": "TCAGGA", "qualities": [30] * 6,
                      "flowgram": [100, 0, 100, 100, 0, 0, 0, 0], "flow_index": [1, 2, 1, 1, 0, 0],
                      "clips": (5, 0, 0, 0)}], "TACGTACG", "TCAG", little_endian=True)
    f = sorvexa.SffFile(copy)
    record = next(iter(f))
    flows = record.flowgram
    f.close()
    del f, record
    assert flows.tolist() == [100, 0, 100, 100, 0, 0, 0, 0]
    assert flows.base is not None and not flows.flags.writeable
    with pytest.raises(ValueError):
        flows[0] = 1
    # Records come only from a file: one without its data cannot be made.
    with pytest.raises(TypeError):
        sorvexa.SffRecord()


def test_kept_range_and_lookup_by_name(tmp_path):
    copy = tmp_path / "two.sff"
    recs = [
        {"name": "a", "bases": "TCAGGATT", "qualities": list(range(8)), "flowgram": [100] * 8,
         "flow_index": [1, 2, 1, 1, 3, 0, 1, 0], "clips": (5, 7, 0, 0)},
        # adapter clips win where they cut more
        {"name": "b", "bases": "TCAGCCAA", "qualities": [20] * 8, "flowgram": [100] * 8,
         "flow_index": [1] * 8, "clips": (5, 8, 6, 7)},
    ]
    write_sff(copy, recs, "TACGTACG", "TCAG", little_endian=False)
    f = sorvexa.SffFile(copy)
    assert "a" in f and "c" not in f and 3 not in f
    a, b = f["a"], f["b"]
    assert a.bases[a.kept] == "GAT" and b.bases[b.kept] == "CA"
    kept = a.kept_read()
    assert (kept.bases, kept.qualities.tolist(), kept.flows.tolist()) == ("GAT", [4, 5, 6], [7, 7, 8])
    assert f.index().get("zz", -1) == -1
    with pytest.raises(KeyError):
        f["zz"]
    from collections.abc import Mapping

    assert isinstance(f.index(), Mapping)


def test_threads_share_a_file(tmp_path):
    """Fetches and walks from several threads at once, each without the GIL: every thread
    gets exactly the records a single walk gives."""
    import threading

    copy = tmp_path / "many.sff"
    recs = [{"name": f"read{k:05d}", "bases": "TCAG" + "ACGT"[k % 4] * (1 + k % 7),
             "qualities": [k % 40] * (5 + k % 7), "flowgram": [k % 300] * 16,
             "flow_index": [1] * (5 + k % 7), "clips": (5, 0, 0, 0)} for k in range(3000)]
    write_sff(copy, recs, "TACG" * 4, "TCAG", little_endian=True)
    f = sorvexa.SffFile(copy)
    expected = [ours(r) for r in f]
    results, errors = {}, []

    def work(k):
        try:
            if k % 2:
                results[k] = [ours(f[r["name"]]) for r in recs]
            else:
                results[k] = [ours(r) for r in f]
        except Exception as e:  # reported below, not lost in the thread
            errors.append(e)

    threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors
    assert all(results[k] == expected for k in range(4))

    # One iterator drained by several threads hands out every record once.
    shared, taken = iter(f), [[] for _ in range(4)]
    threads = [threading.Thread(target=lambda k=k: taken[k].extend(r.name for r in shared))
               for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert sorted(sum(taken, [])) == [r["name"] for r in recs]


@pytest.mark.parametrize("little_endian", [False, True], ids=["big", "little"])
def test_a_file_of_many_blocks_reads_whole(tmp_path, little_endian):
    """Several MiB, so that walks and fetches in file order run ahead of the caller: every
    record comes back as written, walked, fetched in file order and fetched backwards."""
    flow_chars = "TACG" * 100
    recs = []
    for k in range(2500):
        n = 250 + k % 97
        recs.append({"name": f"R{k:06d}", "bases": "ACGT"[k % 4] * n,
                     "qualities": [(k + i) % 41 for i in range(n)],
                     "flowgram": [(k * 7 + i) % 65536 for i in range(len(flow_chars))],
                     "flow_index": [1 + (k + i) % 3 for i in range(n)],
                     "clips": (5, n - k % 10, 0, 0)})
    path = tmp_path / "many.sff"
    write_sff(path, recs, flow_chars, "TCAG", little_endian)
    assert path.stat().st_size > 4 << 20
    f = sorvexa.SffFile(path)
    assert [ours(r) for r in f] == recs
    names = [r["name"] for r in recs]
    assert [ours(f[name]) for name in names] == recs
    assert [ours(f[name]) for name in reversed(names)] == recs[::-1]
