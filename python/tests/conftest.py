"""Shared fixtures: the module under test, the shared sample files and the build's programs.

SORVEXA_BUILD names a CMake build tree: its python/ folder is put first on sys.path, and
the programs the module is compared with are taken from it (tests needing one are skipped
without it). Without SORVEXA_BUILD the installed module is tested.
"""

import os
import pathlib
import struct
import subprocess
import sys

import pytest

REPO = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["SORVEXA_BUILD"]).resolve() if os.environ.get("SORVEXA_BUILD") else None
if BUILD is not None:
    sys.path.insert(0, str(BUILD / "python"))

REALDATA = REPO.parent / "shared" / "realdata"
CORPUS = REPO / "fuzz" / "corpus"


def sample_files(pattern):
    return sorted(REALDATA.glob(pattern)) if REALDATA.is_dir() else []


def build_program(relative):
    """A program of the build tree, or a skip when there is none."""
    if BUILD is None:
        pytest.skip("SORVEXA_BUILD is not set")
    path = BUILD / relative
    if not path.exists():
        pytest.skip(f"{relative} is not built")
    return path


def reference_blocks(mode, path):
    """The reference program's blocks as (key, bytes) pairs, or None when it rejects the file."""
    program = build_program("python/sorvexa_py_reference")
    done = subprocess.run([program, mode, path], capture_output=True)
    if done.returncode != 0:
        return None
    out, pos, blocks = done.stdout, 0, []
    while pos < len(out):
        end = out.index(b"\n", pos)
        key, size = out[pos:end].rsplit(b" ", 1)
        start = end + 1
        blocks.append((key.decode(), out[start : start + int(size)]))
        pos = start + int(size) + 1
    return blocks


def write_sff(path, records, flow_chars, key, little_endian, index_block_at=None):
    """Writes an SFF file of Biopython-style raw records (dicts) in either byte order; with
    index_block_at, an index block of 20 bytes stands before that record."""
    e = "<" if little_endian else ">"
    flows = len(flow_chars)
    header_length = 31 + flows + len(key)
    header_length += -header_length % 8
    body = []
    for r in records:
        name = r["name"].encode()
        read_header_length = 16 + len(name)
        read_header_length += -read_header_length % 8
        n = len(r["bases"])
        fixed = struct.pack(e + "HHIHHHH", read_header_length, len(name), n, *r["clips"])
        fixed += name + bytes(read_header_length - 16 - len(name))
        data = struct.pack(f"{e}{flows}H", *r["flowgram"]) + bytes(r["flow_index"])
        data += r["bases"].encode() + bytes(r["qualities"])
        body.append(fixed + data + bytes(-len(data) % 8))
    index_offset = index_length = 0
    if index_block_at is not None:
        index_offset = header_length + sum(map(len, body[:index_block_at]))
        index_length = 20
        body.insert(index_block_at, b".mft1.00" + bytes(range(1, 13)) + bytes(4))
    head = struct.pack(e + "I", 0x2E736666) + bytes([0, 0, 0, 1])
    head += struct.pack(e + "QIIHHHB", index_offset, index_length, len(records), header_length,
                        len(key), flows, 1)
    head += flow_chars.encode() + key.encode()
    pathlib.Path(path).write_bytes(head + bytes(header_length - len(head)) + b"".join(body))
