#!/usr/bin/env bash
# Builds the release preset (which also generates the bundled example data set) and runs
# the tool with -f on it. The outputs land in build/release/example/.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release
dir=build/release/example
./build/release/Sorvexa -f "$dir/example.ace" "$dir/example_a.sff" "$dir/example_b.sff"
ls -l "$dir/example.reads" "$dir/example.krv"
