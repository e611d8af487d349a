#!/usr/bin/env bash
# Builds the side-by-side benchmark (Release, in build/bench), runs it as several separate
# processes, and writes docs/bench/report.md and docs/bench/chart.svg from their results.
#   scripts/bench.sh [--processes N] [--repetitions R] [--min-time SECONDS] [--out DIR]
# Defaults: 5 processes, each running every benchmark 3 times for at least 0.2 s, the repetitions
# of all benchmarks in random order so that a change in the machine's load lands on all of them
# alike; output in docs/bench. MW_BENCH_PROCESSES, MW_BENCH_REPETITIONS and MW_BENCH_MIN_TIME set
# the same defaults.
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: scripts/bench.sh [--processes N] [--repetitions R] [--min-time SECONDS] [--out DIR]"
processes=${MW_BENCH_PROCESSES:-5}
repetitions=${MW_BENCH_REPETITIONS:-3}
min_time=${MW_BENCH_MIN_TIME:-0.2}
out=docs/bench
while (( $# > 0 )); do
  case "$1" in
    --processes) processes=${2:?$usage}; shift 2 ;;
    --repetitions) repetitions=${2:?$usage}; shift 2 ;;
    --min-time) min_time=${2:?$usage}; shift 2 ;;
    --out) out=${2:?$usage}; shift 2 ;;
    *) echo "$usage" >&2; exit 2 ;;
  esac
done
for count in "$processes" "$repetitions"; do
  if ! [[ "$count" =~ ^[1-9][0-9]*$ ]]; then
    echo "--processes and --repetitions want a positive whole number, not '$count'" >&2
    exit 2
  fi
done

build=build/bench
runs=$build/runs
# The families the report reads: lock/unlock alone and contended, the condition ping-pong and the
# bounded buffer. The shared-mode primitives and the nested reentrant hold have no row in it.
filter='^BM_(Uncontended(<|Guard|TbbQueuing)|Contended|ConditionPingPong|BoundedBuffer)'

scripts/install-deps.sh --bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DMW_SYNC_WARNINGS_AS_ERRORS=ON \
  -DMW_SYNC_BUILD_TESTS=OFF -DMW_SYNC_BUILD_EXAMPLES=OFF -DMW_SYNC_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$build" --target mw_sync_bench -j"$(nproc)"
binary=$build/src/sync/bench/mw_sync_bench

rm -rf "$runs"
mkdir -p "$runs" "$out"
for (( i = 1; i <= processes; i++ )); do
  echo "benchmark process $i of $processes"
  if ! "$binary" --benchmark_filter="$filter" --benchmark_min_time="$min_time" \
      --benchmark_repetitions="$repetitions" --benchmark_enable_random_interleaving=true \
      --benchmark_out="$runs/run-$i.json" --benchmark_out_format=json --benchmark_color=false \
      >"$runs/run-$i.txt" 2>&1; then
    tail -n 20 "$runs/run-$i.txt" >&2
    exit 1
  fi
done

export PYTHONDONTWRITEBYTECODE=1
python3 -m unittest -q tools/bench/test_report.py
run_files=()
for (( i = 1; i <= processes; i++ )); do run_files+=("$runs/run-$i.json"); done
python3 tools/bench/report.py --out "$out" --chart-data "$runs" --build-dir "$build" \
  --min-time "$min_time" --repetitions "$repetitions" "${run_files[@]}"
if command -v gnuplot >/dev/null; then
  gnuplot -e "library='$runs/contended-library.dat'; peers='$runs/contended-peers.dat'; \
output='$out/chart.svg'; runs=$processes" tools/bench/chart.gp
else
  echo "gnuplot not found: $out/chart.svg not drawn" >&2
fi
echo "wrote $out/report.md and $out/chart.svg (raw results in $runs)"
