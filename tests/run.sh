#!/usr/bin/env bash
# Builds the project with AddressSanitizer and UndefinedBehaviorSanitizer and runs every
# test: the C++ suite with ctest, then the Python module's suite with pytest (under the
# same sanitizers, which are loaded into Debian's /usr/bin/python3 for it). Installs the
# build tools first when they are missing (as root), or says how.
set -euo pipefail
cd "$(dirname "$0")/.."

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v ninja >/dev/null 2>&1 || missing+=(ninja-build)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
# libmicrohttpd: without it sorvexa-browse and its tests are not built; the server's tests
# are clients of cpp-httplib.
[ -f /usr/include/microhttpd.h ] || missing+=(libmicrohttpd-dev)
[ -f /usr/include/httplib.h ] || missing+=(libcpp-httplib-dev)
command -v pkg-config >/dev/null 2>&1 || missing+=(pkgconf)
# Alignments: htslib for the library's SAM/BAM/CRAM side, and the field's tools that the
# tests run alignments through.
[ -f /usr/include/htslib/sam.h ] || missing+=(libhts-dev)
command -v samtools >/dev/null 2>&1 || missing+=(samtools)
command -v minimap2 >/dev/null 2>&1 || missing+=(minimap2)
command -v bwa >/dev/null 2>&1 || missing+=(bwa)
# The Python module and its tests, for Debian's interpreter.
python=/usr/bin/python3
[ -f /usr/include/pybind11/pybind11.h ] || missing+=(pybind11-dev)
[ -x $python ] && $python -c "import numpy" 2>/dev/null || missing+=(python3-numpy)
[ -x $python ] && $python -c "import pytest" 2>/dev/null || missing+=(python3-pytest)
[ -x $python ] && $python -c "import Bio" 2>/dev/null || missing+=(python3-biopython)
[ -x $python ] && $python -c "import pysam" 2>/dev/null || missing+=(python3-pysam)
[ -x $python ] && [ -n "$($python -c "import sysconfig, glob; print(*glob.glob(sysconfig.get_paths()['include'] + '/Python.h'))" 2>/dev/null)" ] ||
    missing+=(python3-dev)
packages="cmake ninja-build g++ libgtest-dev libmicrohttpd-dev libcpp-httplib-dev pkgconf libhts-dev samtools minimap2 bwa python3-pysam python3-dev pybind11-dev python3-numpy python3-pytest python3-biopython"
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null 2>&1; then
        apt-get update
        apt-get install -y $packages
    else
        echo "missing: ${missing[*]}; run: sudo apt-get update && sudo apt-get install -y $packages" >&2
        exit 1
    fi
fi

cmake --preset dev
cmake --build --preset dev
ctest --preset dev

echo "== Python module (pytest, with the sanitizers loaded into the interpreter)"
if [ ! -f build/dev/python/sorvexa/__init__.py ]; then
    echo "the Python module was not configured in build/dev (see cmake's message)" >&2
    exit 1
fi
# The module is built with the sanitizers and the interpreter is not, so their runtimes are
# loaded first. The interpreter keeps its own allocations until it exits: no leak check.
# Only Python's own streams are captured, so that a sanitizer's report reaches the log.
status=0
LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libubsan.so)" \
    ASAN_OPTIONS=halt_on_error=1:detect_leaks=0 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    PYTHONDONTWRITEBYTECODE=1 SORVEXA_BUILD=build/dev $python -m pytest -q --capture=sys -p no:cacheprovider python/tests || status=$?
if [ $status -eq 5 ]; then
    echo "pytest collected no tests in python/tests" >&2
    exit 1
fi
exit $status
