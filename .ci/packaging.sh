#!/usr/bin/env bash
# Packaging checks, run as root from the repository root after
#   cmake --preset release && cmake --build --preset release
# (bash examples/run.sh does that and leaves the example run's output, the reference below).
#
#  1. install tree: `cmake --install` into a temporary prefix; every installed header compiles
#     on its own with only <prefix>/include on the path; a downstream CMake project
#     (tests/consumer) and a pkg-config build against it, run on the example ACE file, and its
#     htslib side (Sorvexa::hts, pkg-config sorvexa-hts) on the example's SFF file; the
#     Python module imported from the prefix and run on the same file;
#  2. Debian packages: `dpkg-buildpackage -us -uc -b` (the README's command) on a copy of the
#     tree, lintian on the four packages (any error or warning fails), their metadata and
#     contents, dpkg -i, Sorvexa, sorvexa-flowcheck and sorvexa-sff2bam from PATH on the bundled
#     example,
#     tests/consumer built against the installed packages with CMake and with pkg-config, the
#     Python module imported by /usr/bin/python3 and run on the example, the man pages, dpkg -r;
#  3. example page: contig_page rendered by headless Chromium, the screenshot must not be blank.
#
# The screenshot goes to a temporary directory; SORVEXA_SCREENSHOT=FILE keeps it instead
# (SORVEXA_SCREENSHOT=docs/contig_page.png regenerates the README's picture).
# SORVEXA_BUILD_DIR=DIR takes the release build from DIR instead of build/release.
# 'test && pass ... || fail ...' is safe here: pass always succeeds.
# shellcheck disable=SC2015
set -euo pipefail
cd "$(dirname "$0")/.."
export DEBIAN_FRONTEND=noninteractive

build=${SORVEXA_BUILD_DIR:-build/release}
ace=$build/example/example.ace
failures=0
debs_installed=0
tmp=$(mktemp -d /tmp/sorvexa-packaging.XXXXXX)

cleanup() {
    if [ "$debs_installed" -eq 1 ]; then dpkg -r sorvexa sorvexa-browse libsorvexa-dev python3-sorvexa >/dev/null 2>&1 || true; fi
    rm -rf "$tmp"
}
trap cleanup EXIT
trap 'echo "FAIL: unexpected error at line $LINENO: $BASH_COMMAND"' ERR

pass() { echo "PASS: $*"; }
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
die() {
    echo "FAIL: $*"
    echo "packaging: FAILED"
    exit 1
}

for f in "$build/Sorvexa" "$build/flowcheck/sorvexa-flowcheck" "$build/sff2bam/sorvexa-sff2bam" \
    "$build/examples/contig_page" "$ace"; do
    [ -e "$f" ] || die "$f is missing: run 'cmake --preset release && cmake --build --preset release' first"
done

# ---- tools this script needs (one apt-get update, only when something is missing); the
# packages' build dependencies come from debian/control.
need=()
command -v man >/dev/null 2>&1 || need+=(man-db)
command -v groff >/dev/null 2>&1 || need+=(groff-base)
command -v pkg-config >/dev/null 2>&1 || need+=(pkgconf)
command -v python3 >/dev/null 2>&1 || need+=(python3)
command -v readelf >/dev/null 2>&1 || need+=(binutils)
command -v lintian >/dev/null 2>&1 || need+=(lintian)
command -v dpkg-buildpackage >/dev/null 2>&1 || need+=(dpkg-dev)
[ -x /usr/bin/chromium ] || need+=(chromium fonts-dejavu-core)
if [ "${#need[@]}" -gt 0 ] || ! dpkg-checkbuilddeps >/dev/null 2>&1; then
    echo "== installing ${need[*]} and the build dependencies of debian/control"
    apt-get update -qq
    [ "${#need[@]}" -eq 0 ] || apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
    apt-get build-dep -y -qq ./ >/dev/null
fi

# Reference: the reads of the first contig that its layout places, straight from the ACE file:
# the AF lines whose start column lies within the contig (columns 1 to the CO line's length;
# reads that start before column 1 are left out of the layout by design).
awk '/^CO /{n++; len=$3} n==1 && /^AF / && $4 >= 1 && $4 <= len {print $2}' "$ace" |
    sort >"$tmp/expected_ids"
expected_count=$(wc -l <"$tmp/expected_ids")
[ "$expected_count" -gt 0 ] || die "no read placed in the first contig of $ace"

# check_hts LABEL BINARY: the htslib side of the library (tests/consumer/hts_main.cpp) turns
# every read of the example's first SFF file into a SAM record with its flowgram.
check_hts() {
    local label=$1 bin=$2 sff=$PWD/$build/example/example_a.sff
    if "$bin" "$sff" >"$tmp/hts.out" 2>"$tmp/hts.err" &&
        [ "$(head -n 1 "$tmp/hts.out")" = "$("$build/sff2bam/sorvexa-sff2bam" -O sam -o - "$sff" 2>/dev/null | grep -c -v '^@')" ] &&
        sed -n 2p "$tmp/hts.out" | grep -q $'\t4\t\\*\t0\t0\t.*\tFZ:B:S,.*\tZF:i:[0-9]*\tRG:Z:rg$'; then
        pass "$label made $(head -n 1 "$tmp/hts.out") SAM records with their flowgrams"
    else
        cat "$tmp/hts.err" "$tmp/hts.out" | head -n 5
        fail "$label did not make the example's SAM records"
    fi
}

# check_ids LABEL FILE: FILE holds the first contig's read ids, each exactly once.
check_ids() {
    local label=$1 out=$2
    if [ ! -s "$out" ]; then
        fail "$label printed no read id"
    elif ! sort "$out" | cmp -s - "$tmp/expected_ids"; then
        fail "$label: read ids differ from the first contig's AF lines"
        sort "$out" | diff - "$tmp/expected_ids" | head -n 10 || true
    else
        pass "$label printed the $expected_count read ids of the first contig"
    fi
}

# ---- 1. install tree
echo "== install tree"
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >"$tmp/install.log"
for f in bin/Sorvexa bin/sorvexa-flowcheck bin/sorvexa-sff2bam lib/libsorvexa.a lib/libsorvexa_hts.a \
    include/sorvexa/ace.h include/sorvexa/contig.h include/sorvexa/flowcheck.h \
    include/sorvexa/sff_sam.h lib/cmake/Sorvexa/SorvexaConfig.cmake \
    lib/cmake/Sorvexa/SorvexaConfigVersion.cmake lib/pkgconfig/sorvexa.pc lib/pkgconfig/sorvexa-hts.pc \
    share/man/man1/Sorvexa.1 share/man/man1/sorvexa-flowcheck.1 share/man/man1/sorvexa-sff2bam.1; do
    [ -e "$prefix/$f" ] || fail "install tree lacks $f"
done
pass "cmake --install into a temporary prefix"

# check_headers ROOT: every header under ROOT/sorvexa compiles alone with only -IROOT, the
# public ones are those a consumer is told to include, and the others are marked internal.
check_headers() {
    local root=$1 h rel bad=0 public
    public=$(cd "$root/sorvexa" && find . -maxdepth 1 -name '*.h' -printf '%f\n' | sort | tr '\n' ' ')
    # Installed as a folder: exactly the headers of the source tree's include/sorvexa/.
    [ "$public" = "$(cd include/sorvexa && find . -maxdepth 1 -name '*.h' -printf '%f\n' | sort | tr '\n' ' ')" ] ||
        { fail "public headers in $root/sorvexa: $public"; bad=1; }
    while IFS= read -r h; do
        rel=${h#"$root"/}
        if ! echo "#include <$rel>" | g++ -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror \
            -I"$root" -x c++ - 2>"$tmp/header.log"; then
            head -n 5 "$tmp/header.log"
            fail "#include <$rel> does not compile with only -I$root"
            bad=1
        fi
        case $rel in
        sorvexa/detail/*)
            head -n 1 "$h" | grep -q '^// Internal header of the Sorvexa library' ||
                { fail "$rel does not say it is internal"; bad=1; } ;;
        esac
    done < <(find "$root/sorvexa" -name '*.h' | sort)
    [ "$bad" -eq 0 ] && pass "headers under $root/sorvexa: each compiles alone with -I$root; detail/ marked internal"
}
check_headers "$prefix/include"
# The installed library ends no process and prints nothing.
if nm -C --undefined-only "$prefix/lib/libsorvexa.a" | grep -qE ' (_?exit|quick_exit|std::cout|std::cerr|std::clog|abort)$'; then
    fail "the installed library refers to exit or the standard streams"
else
    pass "the installed library refers to neither exit nor the standard streams"
fi

if cmake -S tests/consumer -B "$tmp/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" >"$tmp/consumer.log" 2>&1 &&
    cmake --build "$tmp/consumer" >>"$tmp/consumer.log" 2>&1; then
    pass "tests/consumer configured and built with find_package(Sorvexa)"
    if "$tmp/consumer/consumer" "$ace" >"$tmp/consumer.out"; then
        check_ids "consumer (install tree)" "$tmp/consumer.out"
    else
        fail "consumer exited with status $?"
    fi
    check_hts "consumer_hts (Sorvexa::hts, install tree)" "$tmp/consumer/consumer_hts"
else
    cat "$tmp/consumer.log"
    fail "tests/consumer does not build against the install tree"
fi

# The pkg-config file must point into the prefix it was installed to.
if flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs sorvexa) &&
    read -r -a flag_list <<<"$flags" &&
    g++ -o "$tmp/consumer_pc" tests/consumer/main.cpp "${flag_list[@]}" 2>"$tmp/pc.log"; then
    if "$tmp/consumer_pc" "$ace" >"$tmp/consumer_pc.out"; then
        check_ids "consumer (pkg-config, install tree)" "$tmp/consumer_pc.out"
    else
        fail "pkg-config consumer exited with status $?"
    fi
else
    head -n 5 "$tmp/pc.log" 2>/dev/null || true
    fail "g++ \$(pkg-config --cflags --libs sorvexa) against the install tree (flags: ${flags:-none})"
fi
if flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs sorvexa-hts) &&
    read -r -a flag_list <<<"$flags" &&
    g++ -o "$tmp/consumer_hts_pc" tests/consumer/hts_main.cpp "${flag_list[@]}" 2>"$tmp/pc.log"; then
    check_hts "consumer_hts (pkg-config sorvexa-hts, install tree)" "$tmp/consumer_hts_pc"
else
    head -n 5 "$tmp/pc.log" 2>/dev/null || true
    fail "g++ \$(pkg-config --cflags --libs sorvexa-hts) against the install tree (flags: ${flags:-none})"
fi

# check_python LABEL [PYTHONPATH]: /usr/bin/python3 imports sorvexa (from PYTHONPATH when
# given, else from where the interpreter finds it), reads the example's SFF files whole and
# through their indexes, and prints the first contig's read ids, checked as above.
check_python() {
    local label=$1 root=$PWD
    if (cd "$tmp" && PYTHONPATH=${2:-} /usr/bin/python3 - "$root/$ace" "$root/$build/example"/example_[ab].sff \
        >"$tmp/python.out" 2>"$tmp/python.err") <<'PY'; then
import sys, sorvexa
ace, sffs = sys.argv[1], sys.argv[2:]
for path in sffs:
    f = sorvexa.SffFile(path)
    records = list(f)
    assert len(records) == f.number_of_reads == len(f) > 0, path
    assert all(f[r.name].flowgram.tolist() == r.flowgram.tolist() for r in records), path
contig = next(iter(sorvexa.AceFile(ace)))
print(*contig.read_ids(), sep="\n")
print(sorvexa.__file__, file=sys.stderr)
PY
        check_ids "$label" "$tmp/python.out"
        python_module=$(tail -n 1 "$tmp/python.err")
    else
        cat "$tmp/python.err"
        fail "$label: the Python module does not run on the example"
    fi
}

pydir=$(find "$prefix/lib" -maxdepth 2 -type d -name dist-packages -path '*/python3*' | head -n 1)
if [ -n "$pydir" ] && [ -f "$pydir/sorvexa/__init__.py" ]; then
    check_python "Python module (install tree, ${pydir#"$prefix"/})" "$pydir"
else
    fail "install tree lacks the Python package sorvexa under lib/python3*/dist-packages"
fi

# ---- 2. Debian packages
echo "== Debian packages"
# Built from a copy of the tree (tracked and untracked files, nothing ignored, so no build
# tree), because dpkg-buildpackage writes the packages into the directory above the source
# tree. The test suite runs during the build, as on a Debian build daemon.
src=$tmp/src/sorvexa
mkdir -p "$src"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
        tar --null --ignore-failed-read -T - -cf - 2>/dev/null | tar -C "$src" -xf -
else
    tar --exclude=./build --exclude=./.git -cf - . | tar -C "$src" -xf -
fi
if (cd "$src" && DEB_BUILD_OPTIONS="parallel=2" dpkg-buildpackage -us -uc -b) >"$tmp/deb-build.log" 2>&1; then
    pass "dpkg-buildpackage -us -uc -b"
else
    tail -n 40 "$tmp/deb-build.log"
    die "dpkg-buildpackage -us -uc -b"
fi
version=$(cd "$src" && dpkg-parsechangelog -S Version)
arch=$(dpkg-architecture -qDEB_HOST_ARCH)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
tool_deb=$tmp/src/sorvexa_${version}_${arch}.deb
dev_deb=$tmp/src/libsorvexa-dev_${version}_${arch}.deb
browse_deb=$tmp/src/sorvexa-browse_${version}_${arch}.deb
python_deb=$tmp/src/python3-sorvexa_${version}_${arch}.deb
for deb in "$tool_deb" "$dev_deb" "$browse_deb" "$python_deb"; do
    [ -f "$deb" ] || die "no $(basename "$deb")"
done

# lintian: no error and no warning (overrides in debian/*.lintian-overrides say why they hold).
if lintian --fail-on error,warning "$tool_deb" "$dev_deb" "$browse_deb" "$python_deb" >"$tmp/lintian.out" \
    2>"$tmp/lintian.err" && [ ! -s "$tmp/lintian.out" ]; then
    pass "lintian on the four packages: no error, no warning"
else
    cat "$tmp/lintian.out"
    grep -v 'running with root privileges' "$tmp/lintian.err" || true
    fail "lintian found errors or warnings"
fi

# field DEB NAME: one control field.
field() { dpkg-deb -f "$1" "$2"; }
for deb in "$tool_deb" "$dev_deb" "$browse_deb" "$python_deb"; do
    name=$(field "$deb" Package)
    maintainer=$(field "$deb" Maintainer)
    case $maintainer in
    *@localhost* | *@*.local\> | "") fail "$name: maintainer address '$maintainer'" ;;
    *) pass "$name: Maintainer: $maintainer" ;;
    esac
    # The description (dpkg -I shows it indented by one): a synopsis and paragraphs, every
    # line at most 80 columns, no list separators left over from a build system.
    field "$deb" Description >"$tmp/description"
    if [ "$(wc -l <"$tmp/description")" -ge 4 ] && ! grep -q '.\{81\}' "$tmp/description" &&
        ! grep -q ';$' "$tmp/description"; then
        pass "$name: description of $(wc -l <"$tmp/description") lines renders cleanly"
    else
        cat "$tmp/description"
        fail "$name: description does not render cleanly"
    fi
    dpkg-deb -c "$deb" | awk '{print $NF}' | sed 's|^\./|/|' >"$tmp/$name.list"
    for f in "/usr/share/doc/$name/copyright" "/usr/share/doc/$name/changelog.Debian.gz"; do
        grep -q -x -F "$f" "$tmp/$name.list" || fail "$name lacks $f"
    done
done
[ "$(field "$tool_deb" Section)" = science ] && [ "$(field "$dev_deb" Section)" = libdevel ] &&
    pass "sections: science, libdevel" || fail "sections: $(field "$tool_deb" Section), $(field "$dev_deb" Section)"
# The C/C++ runtime and htslib's (sorvexa-sff2bam), nothing else.
extra=$(field "$tool_deb" Depends | tr ',|' '\n' | sed -e 's/(.*)//' -e 's/[[:space:]]//g' |
    grep -v -x -e '' -e libc6 -e libstdc++6 -e libgcc-s1 -e 'libhts[0-9]*' || true)
[ -z "$extra" ] && field "$tool_deb" Depends | grep -q 'libhts' &&
    pass "sorvexa Depends: $(field "$tool_deb" Depends)" ||
    fail "sorvexa depends on more than the C/C++ and htslib runtimes, or not on htslib's: $(field "$tool_deb" Depends)"
field "$dev_deb" Depends | grep -q 'libhts-dev' && pass "libsorvexa-dev Depends: $(field "$dev_deb" Depends)" ||
    fail "libsorvexa-dev does not depend on libhts-dev: $(field "$dev_deb" Depends)"
for f in /usr/bin/Sorvexa /usr/share/man/man1/Sorvexa.1.gz /usr/bin/sorvexa-flowcheck \
    /usr/share/man/man1/sorvexa-flowcheck.1.gz /usr/bin/sorvexa-sff2bam \
    /usr/share/man/man1/sorvexa-sff2bam.1.gz; do
    grep -q -x -F "$f" "$tmp/sorvexa.list" || fail "sorvexa lacks $f"
done
for f in /usr/include/sorvexa/ace.h /usr/include/sorvexa/contig.h /usr/include/sorvexa/sff.h \
    /usr/include/sorvexa/flowcheck.h /usr/include/sorvexa/sff_sam.h "/usr/lib/$multiarch/libsorvexa.a" \
    "/usr/lib/$multiarch/libsorvexa_hts.a" "/usr/lib/$multiarch/pkgconfig/sorvexa.pc" \
    "/usr/lib/$multiarch/pkgconfig/sorvexa-hts.pc" "/usr/lib/$multiarch/cmake/Sorvexa/SorvexaConfig.cmake"; do
    grep -q -x -F "$f" "$tmp/libsorvexa-dev.list" || fail "libsorvexa-dev lacks $f"
done
for f in /usr/bin/sorvexa-browse /usr/share/man/man1/sorvexa-browse.1.gz; do
    grep -q -x -F "$f" "$tmp/sorvexa-browse.list" || fail "sorvexa-browse lacks $f"
done
python_files=$(grep -c -e '^/usr/lib/python3/dist-packages/sorvexa/__init__\.py$' \
    -e '^/usr/lib/python3/dist-packages/sorvexa/_sorvexa\.cpython-.*\.so$' "$tmp/python3-sorvexa.list" || true)
[ "$python_files" -eq 2 ] && ! grep -q -v -e '^/usr/lib/python3/dist-packages/' -e '^/usr/share/doc/' \
    -e '^/usr/share/lintian/overrides/' -e '/$' "$tmp/python3-sorvexa.list" &&
    pass "python3-sorvexa holds the package sorvexa in /usr/lib/python3/dist-packages" ||
    fail "python3-sorvexa contents: $(tr '\n' ' ' <"$tmp/python3-sorvexa.list")"
[ "$(field "$python_deb" Section)" = python ] && field "$python_deb" Depends | grep -q 'python3-numpy' &&
    field "$python_deb" Depends | grep -q 'python3 (' &&
    pass "python3-sorvexa: section python, Depends: $(field "$python_deb" Depends)" ||
    fail "python3-sorvexa: section $(field "$python_deb" Section), Depends: $(field "$python_deb" Depends)"
field "$browse_deb" Depends | grep -q 'libmicrohttpd' &&
    pass "sorvexa-browse Depends: $(field "$browse_deb" Depends)" ||
    fail "sorvexa-browse does not depend on the libmicrohttpd runtime"
if grep -q -e sorvexa-browse "$tmp/sorvexa.list" ||
    grep -q -e '^/usr/include/' -e '^/usr/lib/' "$tmp/sorvexa.list" ||
    grep -q -e '^/usr/bin/' -e '^/usr/share/man/' "$tmp/libsorvexa-dev.list"; then
    fail "the program and the library files are not split between the two packages"
else
    pass "sorvexa holds the program, libsorvexa-dev the library files"
fi

# sorvexa-browse needs the libmicrohttpd runtime, which apt brings in if it is missing.
dpkg -i "$tool_deb" "$dev_deb" "$browse_deb" "$python_deb" >"$tmp/dpkg.log" 2>&1 ||
    apt-get install -y -qq -f >>"$tmp/dpkg.log" 2>&1 || {
    cat "$tmp/dpkg.log"
    die "dpkg -i the four packages"
}
debs_installed=1
pass "dpkg -i the four packages"
if out=$(sorvexa-browse 2>&1); [ $? -eq 1 ] && [[ $out == *sorvexa-browse* ]]; then
    pass "sorvexa-browse on PATH answers a missing ACE file with its usage and status 1"
else
    fail "sorvexa-browse from PATH: '$out'"
fi

if [ "$(command -v Sorvexa)" = /usr/bin/Sorvexa ]; then
    readelf -S /usr/bin/Sorvexa | grep -q -e '\.symtab' -e '\.debug_' &&
        fail "/usr/bin/Sorvexa is not stripped" || pass "/usr/bin/Sorvexa is stripped"
    # The bundled example through the installed program: the same files as the build tree's
    # program writes.
    tool=$PWD/$build/Sorvexa
    mkdir -p "$tmp/run" "$tmp/ref"
    cp "$ace" "$tmp/run/"
    cp "$ace" "$tmp/ref/"
    sffs=("$PWD/$build/example/example_a.sff" "$PWD/$build/example/example_b.sff")
    if (cd "$tmp/run" && Sorvexa -f example.ace "${sffs[@]}" >"$tmp/run.out" 2>&1) &&
        (cd "$tmp/ref" && "$tool" -f example.ace "${sffs[@]}" >/dev/null 2>&1) &&
        cmp -s "$tmp/run/example.reads" "$tmp/ref/example.reads" &&
        cmp -s "$tmp/run/example.krv" "$tmp/ref/example.krv"; then
        pass "Sorvexa -f from PATH on the bundled example: $(wc -l <"$tmp/run/example.krv") contigs, output as the build tree's"
    else
        cat "$tmp/run.out"
        fail "Sorvexa -f from PATH on the bundled example"
    fi
else
    fail "Sorvexa on PATH is '$(command -v Sorvexa || true)', not /usr/bin/Sorvexa"
fi

if [ "$(command -v sorvexa-flowcheck)" = /usr/bin/sorvexa-flowcheck ]; then
    readelf -S /usr/bin/sorvexa-flowcheck | grep -q -e '\.symtab' -e '\.debug_' &&
        fail "/usr/bin/sorvexa-flowcheck is not stripped" || pass "/usr/bin/sorvexa-flowcheck is stripped"
    # The same example through the installed checker: status 0, its four files, each as the
    # build tree's program writes it, and the summary line.
    tool=$PWD/$build/flowcheck/sorvexa-flowcheck
    sffs=("$PWD/$build/example/example_a.sff" "$PWD/$build/example/example_b.sff")
    mkdir -p "$tmp/flow" "$tmp/flow_ref"
    cp "$ace" "$tmp/flow/"
    cp "$ace" "$tmp/flow_ref/"
    flow_ok=1 status=0 ref_status=0
    (cd "$tmp/flow" && sorvexa-flowcheck example.ace "${sffs[@]}" >"$tmp/flow.out" 2>"$tmp/flow.err") ||
        status=$?
    (cd "$tmp/flow_ref" && "$tool" example.ace "${sffs[@]}" >/dev/null 2>&1) || ref_status=$?
    [ "$status" -eq 0 ] || { flow_ok=0; fail "sorvexa-flowcheck from PATH exited with status $status"; }
    [ "$ref_status" -eq 0 ] || { flow_ok=0; fail "$tool exited with status $ref_status"; }
    for f in example.flowcheck.vcf example.flowcheck.tsv example.consensus.fa example.polished.fa; do
        if [ ! -s "$tmp/flow/$f" ]; then
            flow_ok=0
            fail "sorvexa-flowcheck from PATH wrote no $f"
        elif ! cmp -s "$tmp/flow/$f" "$tmp/flow_ref/$f"; then
            flow_ok=0
            fail "sorvexa-flowcheck from PATH: $f differs from the build tree's"
        fi
    done
    head -n 1 "$tmp/flow/example.flowcheck.vcf" | grep -q -x '##fileformat=VCFv4.2' ||
        { flow_ok=0; fail "example.flowcheck.vcf does not begin as VCF 4.2"; }
    grep -q '^sorvexa-flowcheck: .* runs tested, ' "$tmp/flow.err" ||
        { flow_ok=0; fail "sorvexa-flowcheck printed no summary: $(cat "$tmp/flow.err")"; }
    [ "$flow_ok" -eq 1 ] &&
        pass "sorvexa-flowcheck from PATH on the bundled example: $(grep -c -v '^#' "$tmp/flow/example.flowcheck.vcf") calls, four files as the build tree's"
else
    fail "sorvexa-flowcheck on PATH is '$(command -v sorvexa-flowcheck || true)', not /usr/bin/sorvexa-flowcheck"
fi

if [ "$(command -v sorvexa-sff2bam)" = /usr/bin/sorvexa-sff2bam ]; then
    readelf -S /usr/bin/sorvexa-sff2bam | grep -q -e '\.symtab' -e '\.debug_' &&
        fail "/usr/bin/sorvexa-sff2bam is not stripped" || pass "/usr/bin/sorvexa-sff2bam is stripped"
    # The example's SFF files as SAM text through the installed converter: the build tree's
    # records (the @PG line names the command and differs).
    sffs=("$PWD/$build/example/example_a.sff" "$PWD/$build/example/example_b.sff")
    if sorvexa-sff2bam -O sam -o - "${sffs[@]}" 2>"$tmp/sff2bam.err" | grep -v '^@PG' >"$tmp/sff2bam.sam" &&
        "$build/sff2bam/sorvexa-sff2bam" -O sam -o - "${sffs[@]}" 2>/dev/null | grep -v '^@PG' >"$tmp/sff2bam_ref.sam" &&
        cmp -s "$tmp/sff2bam.sam" "$tmp/sff2bam_ref.sam" && grep -q $'\tFZ:B:S,' "$tmp/sff2bam.sam"; then
        pass "sorvexa-sff2bam from PATH on the bundled example: $(grep -c -v '^@' "$tmp/sff2bam.sam") records, as the build tree's"
    else
        cat "$tmp/sff2bam.err"
        fail "sorvexa-sff2bam from PATH on the bundled example"
    fi
else
    fail "sorvexa-sff2bam on PATH is '$(command -v sorvexa-sff2bam || true)', not /usr/bin/sorvexa-sff2bam"
fi

# The packaged CMake package, found in the multiarch directory (CMAKE_PREFIX_PATH=/usr named,
# so that an install under /usr/local on a developer's machine is not picked up instead).
if cmake -S tests/consumer -B "$tmp/consumer_deb" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH=/usr >"$tmp/consumer_deb.log" 2>&1 &&
    cmake --build "$tmp/consumer_deb" >>"$tmp/consumer_deb.log" 2>&1 &&
    "$tmp/consumer_deb/consumer" "$ace" >"$tmp/consumer_deb.out"; then
    found=$(sed -n 's/^Sorvexa_DIR:PATH=//p' "$tmp/consumer_deb/CMakeCache.txt")
    if [ "$found" = "/usr/lib/$multiarch/cmake/Sorvexa" ]; then
        check_ids "consumer (CMake, installed packages)" "$tmp/consumer_deb.out"
        check_hts "consumer_hts (Sorvexa::hts, installed packages)" "$tmp/consumer_deb/consumer_hts"
    else
        fail "find_package(Sorvexa) used $found, not /usr/lib/$multiarch/cmake/Sorvexa"
    fi
else
    tail -n 20 "$tmp/consumer_deb.log"
    fail "tests/consumer with CMake against the installed packages"
fi
# pkg-config from its default search path.
if flags=$(pkg-config --cflags --libs sorvexa) &&
    read -r -a flag_list <<<"$flags" &&
    g++ -o "$tmp/consumer_pc_deb" tests/consumer/main.cpp "${flag_list[@]}" 2>"$tmp/pc_deb.log" &&
    "$tmp/consumer_pc_deb" "$ace" >"$tmp/consumer_pc_deb.out"; then
    check_ids "consumer (pkg-config, installed packages)" "$tmp/consumer_pc_deb.out"
else
    head -n 5 "$tmp/pc_deb.log" 2>/dev/null || true
    fail "g++ \$(pkg-config --cflags --libs sorvexa) against the installed packages (flags: ${flags:-none})"
fi
check_headers /usr/include

python_module=
check_python "Python module (python3-sorvexa)"
[ "$python_module" = /usr/lib/python3/dist-packages/sorvexa/__init__.py ] ||
    fail "python3 imported sorvexa from '$python_module', not from python3-sorvexa"
so=$(find /usr/lib/python3/dist-packages/sorvexa -name '_sorvexa*.so' | head -n 1)
[ -n "$so" ] && ! readelf -S "$so" | grep -q -e '\.symtab' -e '\.debug_' &&
    pass "$so is stripped" || fail "the Python extension '$so' is missing or not stripped"

for page in Sorvexa sorvexa-browse sorvexa-flowcheck sorvexa-sff2bam; do
    manpage=$(man -w "$page" 2>/dev/null || true)
    if [ "$manpage" = "/usr/share/man/man1/$page.1.gz" ]; then
        warnings=$(man --warnings -l "$manpage" 2>&1 >/dev/null || true)
        [ -z "$warnings" ] && pass "man $page: $manpage, no warning" ||
            fail "man page warnings:"$'\n'"$warnings"
    else
        fail "man -w $page gives '$manpage'"
    fi
done

if dpkg -r sorvexa sorvexa-browse libsorvexa-dev python3-sorvexa >"$tmp/dpkg-r.log" 2>&1; then
    debs_installed=0
    [ ! -e /usr/bin/Sorvexa ] && [ ! -e /usr/bin/sorvexa-browse ] &&
        [ ! -e /usr/bin/sorvexa-flowcheck ] && [ ! -e /usr/bin/sorvexa-sff2bam ] && [ ! -e /usr/include/sorvexa ] &&
        [ ! -e "/usr/lib/$multiarch/libsorvexa.a" ] &&
        [ ! -e /usr/lib/python3/dist-packages/sorvexa ] &&
        pass "dpkg -r removed the four packages" || fail "files left behind after dpkg -r"
else
    cat "$tmp/dpkg-r.log"
    fail "dpkg -r sorvexa sorvexa-browse libsorvexa-dev python3-sorvexa"
fi

# ---- 3. example page in headless Chromium
echo "== example page"
page=$tmp/page.html
shot=${SORVEXA_SCREENSHOT:-$tmp/page.png}
mkdir -p "$(dirname "$shot")"
rm -f "$shot"
# Contig2 from column 600, 100 columns wide: seven reads of different ends, and the whole
# alignment and flow maps fit the window without scrolling (the README's screenshot).
"$build/examples/contig_page" "$ace" Contig2 600 100 "$page" ||
    die "contig_page $ace Contig2 600 100"
[ -s "$page" ] && pass "contig_page wrote $(wc -c <"$page") bytes of HTML" || fail "contig_page wrote an empty page"

profile=$(mktemp -d "$tmp/chromium.XXXXXX")
timeout 120 /usr/bin/chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
    --disable-background-networking --disable-component-update --disable-sync \
    --user-data-dir="$profile" --screenshot="$shot" --window-size=1360,680 \
    "file://$(realpath "$page")" >"$tmp/chromium.log" 2>&1 || true
if [ -s "$shot" ]; then
    if stats=$(python3 .ci/png_check.py "$shot"); then
        pass "screenshot is not blank: $stats"
    else
        fail "screenshot looks blank: $stats"
    fi
else
    tail -n 20 "$tmp/chromium.log"
    fail "headless Chromium wrote no screenshot"
fi

if [ "$failures" -eq 0 ]; then
    echo "packaging: all checks PASSED"
else
    echo "packaging: $failures check(s) FAILED"
    exit 1
fi
