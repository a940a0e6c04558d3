#!/usr/bin/env bash
# Packaging checks, run as root from the repository root after
#   cmake --preset release && cmake --build --preset release
#
#  1. install tree: `cmake --install` into a temporary prefix, then a downstream CMake project
#     (tests/consumer) and a pkg-config build against it, run on the example ACE file;
#  2. Debian package: cpack -G DEB, its metadata and contents, dpkg -i, the tool from PATH,
#     the installed CMake package, the man page without warnings, dpkg -r;
#  3. example page: contig_page rendered by headless Chromium, the screenshot must not be blank.
#
# The screenshot goes to a temporary directory; SORVEXA_SCREENSHOT=FILE keeps it instead
# (SORVEXA_SCREENSHOT=docs/contig_page.png regenerates the README's picture).
# 'test && pass ... || fail ...' is safe here: pass always succeeds.
# shellcheck disable=SC2015
set -euo pipefail
cd "$(dirname "$0")/.."
export DEBIAN_FRONTEND=noninteractive

build=build/release
ace=$build/example/example.ace
failures=0
deb_installed=0
tmp=$(mktemp -d /tmp/sorvexa-packaging.XXXXXX)

cleanup() {
    if [ "$deb_installed" -eq 1 ]; then dpkg -r sorvexa >/dev/null 2>&1 || true; fi
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

for f in "$build/Sorvexa" "$build/examples/contig_page" "$ace"; do
    [ -e "$f" ] || die "$f is missing: run 'cmake --preset release && cmake --build --preset release' first"
done

# ---- tools this script needs (one apt-get update, only when something is missing)
need=()
command -v man >/dev/null 2>&1 || need+=(man-db)
command -v groff >/dev/null 2>&1 || need+=(groff-base)
command -v pkg-config >/dev/null 2>&1 || need+=(pkgconf)
command -v python3 >/dev/null 2>&1 || need+=(python3)
command -v readelf >/dev/null 2>&1 || need+=(binutils)
[ -x /usr/bin/chromium ] || need+=(chromium fonts-dejavu-core)
if [ "${#need[@]}" -gt 0 ]; then
    echo "== installing ${need[*]}"
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi

# Reference: the reads of the first contig that its layout places, straight from the ACE file:
# the AF lines whose start column lies within the contig (columns 1 to the CO line's length;
# reads that start before column 1 are left out of the layout by design).
awk '/^CO /{n++; len=$3} n==1 && /^AF / && $4 >= 1 && $4 <= len {print $2}' "$ace" |
    sort >"$tmp/expected_ids"
expected_count=$(wc -l <"$tmp/expected_ids")
[ "$expected_count" -gt 0 ] || die "no read placed in the first contig of $ace"

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
for f in bin/Sorvexa lib/libsorvexa.a include/sorvexa/ace.h include/sorvexa/contig.h \
    lib/cmake/Sorvexa/SorvexaConfig.cmake lib/cmake/Sorvexa/SorvexaConfigVersion.cmake \
    lib/pkgconfig/sorvexa.pc share/man/man1/Sorvexa.1; do
    [ -e "$prefix/$f" ] || fail "install tree lacks $f"
done
pass "cmake --install into a temporary prefix"

if cmake -S tests/consumer -B "$tmp/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" >"$tmp/consumer.log" 2>&1 &&
    cmake --build "$tmp/consumer" >>"$tmp/consumer.log" 2>&1; then
    pass "tests/consumer configured and built with find_package(Sorvexa)"
    if "$tmp/consumer/consumer" "$ace" >"$tmp/consumer.out"; then
        check_ids "consumer (install tree)" "$tmp/consumer.out"
    else
        fail "consumer exited with status $?"
    fi
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

# ---- 2. Debian package
echo "== Debian package"
rm -f "$build"/sorvexa_*.deb
(cd "$build" && cpack -G DEB >"$tmp/cpack.log" 2>&1) || {
    cat "$tmp/cpack.log"
    die "cpack -G DEB"
}
deb=$(find "$build" -maxdepth 1 -name 'sorvexa_*.deb' | head -n 1)
[ -n "$deb" ] || die "cpack wrote no sorvexa_*.deb"
pass "cpack -G DEB wrote $(basename "$deb")"

package=$(dpkg-deb -f "$deb" Package)
section=$(dpkg-deb -f "$deb" Section)
depends=$(dpkg-deb -f "$deb" Depends)
[ "$package" = sorvexa ] && pass "Package: $package" || fail "Package is '$package', not sorvexa"
[ "$section" = science ] && pass "Section: $section" || fail "Section is '$section', not science"
extra=$(echo "$depends" | tr ',|' '\n' | sed -e 's/(.*)//' -e 's/[[:space:]]//g' |
    grep -v -x -e '' -e libc6 -e libstdc++6 -e libgcc-s1 -e libgcc1 || true)
[ -z "$extra" ] && pass "Depends: $depends" || fail "Depends has more than the C/C++ runtime: $extra"

# What the program links must be covered by those dependencies.
needed=$(readelf -d "$build/Sorvexa" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p')
odd=$(echo "$needed" | grep -v -E '^(libc|libm|libstdc\+\+|libgcc_s|ld-linux[-a-z0-9_.]*)\.so' || true)
[ -z "$odd" ] && pass "Sorvexa links only $(tr '\n' ' ' <<<"$needed")" || fail "Sorvexa links libraries outside Depends: $odd"

dpkg-deb -c "$deb" | awk '{print $NF}' >"$tmp/deb.list"
for f in ./usr/bin/Sorvexa ./usr/lib/libsorvexa.a ./usr/include/sorvexa/ace.h \
    ./usr/include/sorvexa/contig.h ./usr/lib/cmake/Sorvexa/SorvexaConfig.cmake \
    ./usr/lib/pkgconfig/sorvexa.pc ./usr/share/man/man1/Sorvexa.1; do
    grep -q -x -F "$f" "$tmp/deb.list" || fail "the package lacks ${f#.}"
done

dpkg -i "$deb" >"$tmp/dpkg.log" 2>&1 || {
    cat "$tmp/dpkg.log"
    die "dpkg -i $deb"
}
deb_installed=1
pass "dpkg -i"

if [ "$(command -v Sorvexa)" = /usr/bin/Sorvexa ]; then
    status=0
    Sorvexa -v >"$tmp/version.out" 2>&1 || status=$?
    version=$(grep -o 'Sorvexa (Version [0-9][0-9.]*)' "$tmp/version.out" || true)
    if [ "$status" -eq 0 ] && [ -n "$version" ]; then
        pass "Sorvexa -v from PATH: $version"
    else
        cat "$tmp/version.out"
        fail "Sorvexa -v from PATH: status $status, version line ${version:-missing}"
    fi
else
    fail "Sorvexa on PATH is '$(command -v Sorvexa || true)', not /usr/bin/Sorvexa"
fi

# The packaged CMake and pkg-config files, from /usr (named first, so that an install under
# /usr/local on a developer's machine is not picked up instead).
if cmake -S tests/consumer -B "$tmp/consumer_deb" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH=/usr >"$tmp/consumer_deb.log" 2>&1 &&
    cmake --build "$tmp/consumer_deb" >>"$tmp/consumer_deb.log" 2>&1 &&
    "$tmp/consumer_deb/consumer" "$ace" >"$tmp/consumer_deb.out"; then
    found=$(sed -n 's/^Sorvexa_DIR:PATH=//p' "$tmp/consumer_deb/CMakeCache.txt")
    if [ "$found" = /usr/lib/cmake/Sorvexa ]; then
        check_ids "consumer (installed package)" "$tmp/consumer_deb.out"
    else
        fail "find_package(Sorvexa) used $found, not /usr/lib/cmake/Sorvexa"
    fi
else
    tail -n 20 "$tmp/consumer_deb.log"
    fail "tests/consumer against the installed package"
fi
if flags=$(PKG_CONFIG_PATH=/usr/lib/pkgconfig pkg-config --cflags --libs sorvexa) &&
    read -r -a flag_list <<<"$flags" &&
    g++ -o "$tmp/consumer_pc_deb" tests/consumer/main.cpp "${flag_list[@]}" 2>"$tmp/pc_deb.log" &&
    "$tmp/consumer_pc_deb" "$ace" >"$tmp/consumer_pc_deb.out"; then
    check_ids "consumer (pkg-config, installed package)" "$tmp/consumer_pc_deb.out"
else
    head -n 5 "$tmp/pc_deb.log" 2>/dev/null || true
    fail "g++ \$(pkg-config --cflags --libs sorvexa) against the installed package (flags: ${flags:-none})"
fi

manpage=/usr/share/man/man1/Sorvexa.1
if [ -f "$manpage" ]; then
    warnings=$(man --warnings -l "$manpage" 2>&1 >/dev/null || true)
    [ -z "$warnings" ] && pass "man --warnings -l $manpage: no warning" ||
        fail "man page warnings:"$'\n'"$warnings"
else
    fail "$manpage is not installed"
fi

dpkg -r sorvexa >"$tmp/dpkg-r.log" 2>&1 && deb_installed=0 || fail "dpkg -r sorvexa"
if [ "$deb_installed" -eq 0 ]; then
    [ ! -e /usr/bin/Sorvexa ] && [ ! -e /usr/include/sorvexa ] && pass "dpkg -r sorvexa removed it" ||
        fail "files left behind after dpkg -r sorvexa"
fi

# ---- 3. example page in headless Chromium
cat >"$tmp/png_check.py" <<'EOF'
# Decodes an 8-bit RGB/RGBA PNG with the standard library and checks it is not blank.
import struct, sys, zlib
data = open(sys.argv[1], "rb").read()
assert data[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG"
pos, idat = 8, b""
while pos < len(data):
    length, kind = struct.unpack(">I4s", data[pos:pos + 8])
    body = data[pos + 8:pos + 8 + length]
    if kind == b"IHDR":
        width, height, depth, ctype, _, _, interlace = struct.unpack(">IIBBBBB", body)
    elif kind == b"IDAT":
        idat += body
    pos += 12 + length
assert depth == 8 and ctype in (2, 6) and interlace == 0, f"unsupported PNG {depth=} {ctype=}"
bpp = 3 if ctype == 2 else 4
raw, stride = zlib.decompress(idat), width * bpp
prev, colours, coloured = bytearray(stride), set(), 0
for y in range(height):
    base = y * (stride + 1)
    ftype, row = raw[base], bytearray(raw[base + 1:base + 1 + stride])
    if ftype == 1:
        for i in range(bpp, stride): row[i] = (row[i] + row[i - bpp]) & 255
    elif ftype == 2:
        row = bytearray((a + b) & 255 for a, b in zip(row, prev))
    elif ftype == 3:
        for i in range(stride):
            row[i] = (row[i] + ((row[i - bpp] if i >= bpp else 0) + prev[i]) // 2) & 255
    elif ftype == 4:
        for i in range(stride):
            a = row[i - bpp] if i >= bpp else 0
            b, c = prev[i], (prev[i - bpp] if i >= bpp else 0)
            p = a + b - c
            pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
            row[i] = (row[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
    for x in range(0, stride, bpp):
        px = bytes(row[x:x + 3])
        colours.add(px)
        if px != b"\xff\xff\xff": coloured += 1
    prev = row
share = coloured / (width * height)
print(f"{width}x{height}, {len(colours)} colours, {100 * share:.1f}% non-white")
sys.exit(0 if len(colours) >= 8 and share >= 0.02 else 1)
EOF
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
    if stats=$(python3 "$tmp/png_check.py" "$shot"); then
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
