#!/usr/bin/env bash
# Runs the benchmark suite once and regenerates docs/performance.md and
# docs/performance.png from it (Debian's python3-matplotlib draws the chart).
#   bench/report.sh [BUILD_DIR]     (default build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "${1:-}" = "-h" ] || [ "${1:-}" = "--help" ]; then sed -n '2,4p' "$0" | sed 's/^# \{0,1\}//'; exit 0; fi
build=${1:-build/release}
[ -x "$build/bench/trdcomp_bench" ] || { echo "no $build/bench/trdcomp_bench: build the release preset first" >&2; exit 1; }
json=$(mktemp)
trap 'rm -f "$json"' EXIT
echo "running the benchmarks (a few minutes)..."
"$build/bench/trdcomp_bench" --benchmark_format=json --benchmark_min_time=0.2 --benchmark_repetitions=3 \
  --benchmark_report_aggregates_only=true > "$json"
compiler=$(grep -m1 'CMAKE_CXX_COMPILER:' "$build/CMakeCache.txt" | cut -d= -f2)
flags=$(grep -m1 'CMAKE_CXX_FLAGS_RELEASE:' "$build/CMakeCache.txt" | cut -d= -f2)
/usr/bin/python3 bench/report.py "$json" "$("$compiler" --version | head -n1) $flags" docs/performance.md docs/performance.png
echo "wrote docs/performance.md and docs/performance.png"
