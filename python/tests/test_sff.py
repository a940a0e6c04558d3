"""SffFile against Biopython's reading of the shared real files, and against the library's
own index and kept reads."""

import io
import random
import warnings

import numpy as np

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


def batch_rows(batch):
    """Each row of a batch as ours() gives a record."""
    o = batch.offsets.tolist()
    return [{"name": name,
             "bases": batch.bases[o[i]:o[i + 1]].tobytes().decode("utf-8", "surrogateescape"),
             "qualities": batch.qualities[o[i]:o[i + 1]].tolist(),
             "flowgram": batch.flowgrams[i].tolist(),
             "flow_index": batch.flow_index_per_base[o[i]:o[i + 1]].tolist(),
             "clips": tuple(batch.clips[i].tolist())} for i, name in enumerate(batch.names)]


def varied_records(count, flows):
    return [{"name": f"v{k:04d}", "bases": "ACGT"[k % 4] * (1 + k * 7 % 23),
             "qualities": [(k + i) % 41 for i in range(1 + k * 7 % 23)],
             "flowgram": [(k * 31 + i) % 65536 for i in range(flows)],
             "flow_index": [1 + (k + i) % 3 for i in range(1 + k * 7 % 23)],
             "clips": (5, k % 9, k % 3, 0)} for k in range(count)]


def test_batch_holds_the_written_values_a_row_a_record_in_file_order(tmp_path):
    a = {"name": "a", "bases": "TCAGGATT", "qualities": list(range(8)),
         "flowgram": [101, 0, 99, 240, 3, 0, 1000, 65535], "flow_index": [1, 2, 1, 1, 3, 0, 1, 0],
         "clips": (5, 7, 0, 0)}
    b = {"name": "b", "bases": "TCAGCC", "qualities": [20] * 6,
         "flowgram": [100, 0, 100, 100, 0, 0, 210, 7], "flow_index": [1] * 6, "clips": (5, 6, 6, 7)}
    path = tmp_path / "two.sff"
    write_sff(path, [a, b], "TACGTACG", "TCAG", little_endian=False)
    batch = sorvexa.SffFile(path).fetch(["b", "a", "b"])
    assert batch.names == ["a", "b"] and batch.rows.tolist() == [1, 0, 1]
    assert batch.flowgrams.tolist() == [a["flowgram"], b["flowgram"]]
    assert batch.offsets.tolist() == [0, 8, 14]
    assert batch.bases.tobytes() == b"TCAGGATT" b"TCAGCC"
    assert batch.qualities.tolist() == list(range(8)) + [20] * 6
    assert batch.flow_index_per_base.tolist() == [1, 2, 1, 1, 3, 0, 1, 0] + [1] * 6
    assert batch.clips.tolist() == [[5, 7, 0, 0], [5, 6, 6, 7]]
    # a 48-byte header, then a's 24-byte read header and 40 bytes of data
    assert batch.record_offsets.tolist() == [48, 112]
    assert (batch.flowgrams.dtype, batch.bases.dtype, batch.qualities.dtype, batch.offsets.dtype,
            batch.rows.dtype) == (np.uint16, np.dtype("S1"), np.uint8, np.int64, np.int64)


@pytest.mark.parametrize("little_endian", [False, True], ids=["big", "little"])
def test_batch_rows_are_the_records_asked_for(tmp_path, little_endian):
    recs = varied_records(300, 12)
    path = tmp_path / "varied.sff"
    write_sff(path, recs, "TACG" * 3, "TCAG", little_endian)
    f = sorvexa.SffFile(path)
    names = [r["name"] for r in recs[::2]]
    random.Random(7).shuffle(names)
    names += names[:5]  # asked for twice, still one row
    batch = f.fetch(names)
    by_name = {r["name"]: r for r in recs}
    rows = batch_rows(batch)
    assert len(batch) == 150 and sorted(batch.names) == batch.names == sorted(set(names))
    assert [rows[k] for k in batch.rows] == [by_name[n] for n in names]
    assert batch.record_offsets.tolist() == [f.index()[n] for n in batch.names]

    assert f.fetch(f"v{k:04d}" for k in (3, 1)).names == ["v0001", "v0003"]
    empty = f.fetch([])
    assert empty.flowgrams.shape == (0, 12) and empty.offsets.tolist() == [0] and len(empty.bases) == 0
    with pytest.raises(KeyError):
        f.fetch(["v0001", "nobody"])


@needs_samples
@pytest.mark.parametrize("path", SFF_FILES, ids=lambda p: p.name)
def test_batch_equals_records_fetched_one_by_one(path):
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", sorvexa.FormatWarning)
        f = sorvexa.SffFile(path)
        names = sorted(f.index())
        random.Random(1).shuffle(names)
        batch = f.fetch(names)
        one_by_one = [ours(f[n]) for n in names]
    for record, name in zip(one_by_one, names):
        record["name"] = name
        record["flowgram"] += [0] * (f.flows_per_read - len(record["flowgram"]))
    rows = batch_rows(batch)
    assert [rows[k] for k in batch.rows] == one_by_one


def cut_file(tmp_path):
    """r1 declares 40 bases, but its file ends 30 bytes after its fixed part: inside its
    flow indexes, past its 8 flow values."""
    recs = varied_records(2, 8)
    recs[1].update(bases="ACGT" * 10, qualities=[30] * 40, flow_index=list(range(1, 41)))
    path = tmp_path / "cut.sff"
    write_sff(path, recs, "TACGTACG", "TCAG", little_endian=False)
    f = sorvexa.SffFile(path)
    at = f.index()["v0001"]
    f.close()
    path.write_bytes(path.read_bytes()[: at + 16 + 30])
    return path, recs


def test_a_record_cut_short_holds_the_bases_the_file_has(tmp_path):
    path, recs = cut_file(tmp_path)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", sorvexa.FormatWarning)
        f = sorvexa.SffFile(path)
        walked = list(f)[1]
        fetched = f["v0001"]
        batch = f.fetch(["v0001", "v0000", "v0001"])
    # 8 bytes of name and padding, 16 of flow values, then 6 flow indexes.
    for r in (walked, fetched):
        assert r.number_of_bases == 40
        assert len(r) == len(r.bases) == len(r.qualities) == 30
        assert r.flowgram.tolist() == recs[1]["flowgram"]
        assert r.flow_index_per_base.tolist() == list(range(1, 7)) + [0] * 24
    assert batch.offsets.tolist() == [0, 1, 31] and batch.rows.tolist() == [1, 0, 1]
    assert batch.flow_index_per_base[1:].tolist() == list(range(1, 7)) + [0] * 24


def test_a_batch_refuses_a_file_grown_since_it_was_indexed(tmp_path):
    path, _ = cut_file(tmp_path)
    f = sorvexa.SffFile(path)
    f.index()
    with open(path, "ab") as grown:  # the record cut short now holds more bases
        grown.write(b"ACGT" * 20)
    with pytest.raises(sorvexa.FormatError, match="changed after it was indexed"):
        f.fetch(["v0001"])


def test_an_index_block_among_the_reads_is_stepped_over_alike(tmp_path):
    recs = varied_records(3, 8)
    path = tmp_path / "indexed.sff"
    write_sff(path, recs, "TACGTACG", "TCAG", little_endian=False, index_block_at=2)
    f = sorvexa.SffFile(path)
    assert f.index_length == 20
    walked = list(f)
    assert [ours(r) for r in walked] == recs
    assert {r.name: r.offset for r in walked} == dict(f.index())
    assert walked[2].offset == f.index_offset + 24


def test_record_attributes_raise_memory_error_when_an_allocation_fails(tmp_path):
    """Each allocation an attribute makes is made to fail in turn: each time the attribute
    raises MemoryError or gives its whole value, never a wrong one or another error."""
    testcapi = pytest.importorskip("_testcapi")
    path = tmp_path / "one.sff"
    write_sff(path, varied_records(3, 8), "TACGTACG", "TCAG", little_endian=False)
    record = sorvexa.SffFile(path)["v0002"]
    arrays = lambda v: v.tolist()  # noqa: E731
    attributes = {"name": str, "bases": str, "qualities": arrays,
                  "flowgram": arrays, "flow_index_per_base": arrays,
                  "kept_read": lambda k: (k.bases, k.qualities.tolist(), k.flows.tolist())}
    for attribute, value in attributes.items():
        access = (lambda r: r.kept_read()) if attribute == "kept_read" else (
            lambda r, a=attribute: getattr(r, a))
        expected, failures = value(access(record)), 0
        for k in range(60):
            testcapi.set_nomemory(k, k + 1)
            try:
                got = access(record)
            except MemoryError:
                failures += 1
                continue
            finally:
                testcapi.remove_mem_hooks()
            assert value(got) == expected, attribute
        assert failures > 0, attribute
