#!/usr/bin/env bash
# Builds the project with AddressSanitizer and UndefinedBehaviorSanitizer and runs every
# test. Installs the build tools first when they are missing (as root), or says how.
set -euo pipefail
cd "$(dirname "$0")/.."

missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v ninja >/dev/null 2>&1 || missing+=(ninja-build)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
# cpp-httplib: without it sorvexa-browse and its tests are not built.
[ -f /usr/include/httplib.h ] || missing+=(libcpp-httplib-dev)
command -v pkg-config >/dev/null 2>&1 || missing+=(pkgconf)
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null 2>&1; then
        apt-get update
        apt-get install -y cmake ninja-build g++ libgtest-dev libcpp-httplib-dev pkgconf
    else
        echo "missing: ${missing[*]}; run: sudo apt-get update && sudo apt-get install -y cmake ninja-build g++ libgtest-dev libcpp-httplib-dev pkgconf" >&2
        exit 1
    fi
fi

cmake --preset dev
cmake --build --preset dev
ctest --preset dev
