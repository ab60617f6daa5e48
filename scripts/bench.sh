#!/usr/bin/env bash
# One performance table: builds the benchmarks in Release in their own folder, runs each job's
# benchmark and its peer's in the same run on the same input, prints the table and writes it as
# JSON (bench-results.json in the build folder unless ZUBIMPORT_BENCH_JSON names another file).
#
#   bash scripts/bench.sh              build (under the shared build lock), then run
#   bash scripts/bench.sh --no-build   run what the folder already has
#
# ZUBIMPORT_BENCH_BUILD_DIR  build folder (default build-bench)
# ZUBIMPORT_BENCH_JOBS       parallel build jobs (default 2)
# ZUBIMPORT_BENCH_MIN_TIME   seconds per benchmark for those without a fixed iteration count
#                            (default: the library's own, 0.5 s)
# The rows, their peers and goals are in bench/report/rows.tsv. The build is a full one: run
# this when the machine is otherwise quiet, and not while others build.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZUBIMPORT_BENCH_BUILD_DIR:-$root/build-bench}"
json="${ZUBIMPORT_BENCH_JSON:-$build/bench-results.json}"
jobs="${ZUBIMPORT_BENCH_JOBS:-2}"
min_time="${ZUBIMPORT_BENCH_MIN_TIME:-}"

case "${1:-}" in
  "") do_build=1 ;;
  --no-build) do_build=0 ;;
  *)
    echo "usage: $0 [--no-build]" >&2
    exit 2
    ;;
esac

if [ "$do_build" = 1 ]; then
  # Everything the benchmarks load at run time (recorder back-ends, the imaging library) is
  # built too, so the build is the whole project without its tests. A part that does not
  # build does not stop the others (ninja -k 0): its rows then say "not built".
  flock /tmp/zub-build.lock bash -c '
    set -euo pipefail
    cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DZUBIMPORT_BUILD_BENCH=ON -DZUBIMPORT_BUILD_TESTS=OFF -DZUBIMPORT_BUILD_TOOLS=ON >/dev/null
    if ! cmake --build "$2" -j "$3" -- -k 0; then
      echo "bench.sh: some targets did not build; rows that need them show \"not built\"" >&2
    fi
  ' _ "$root" "$build" "$jobs"
fi

report="$build/bin/bench_report"
if [ ! -x "$report" ]; then
  echo "bench.sh: $report is missing: build first (without --no-build)" >&2
  exit 1
fi
args=(--bin "$build/bin" --rows "$root/bench/report/rows.tsv" --json "$json")
if [ -n "$min_time" ]; then args+=(--min-time "$min_time"); fi
"$report" "${args[@]}"
echo "written: $json"
