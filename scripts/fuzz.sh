#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, release with debug information, AddressSanitizer and
# UndefinedBehaviorSanitizer) in their own folder and runs each for a while, one after another.
#
#   bash scripts/fuzz.sh [SECONDS] [TARGET...]   SECONDS per target (default 60); all targets
#                                                unless some are named
#
# Each target keeps its corpus under fuzz/<area>/corpus/ (fuzz/<area>/corpus/<target>/ when
# the area has several targets): the committed seeds are there and what a run adds stays there
# for the next run (git ignores it). Anything found goes to <build>/fuzz-artifacts/<target>/
# with the run's log beside it; the script prints one line per target and exits 1 if any target
# found a crash, a leak, a timeout or ran out of memory.
#
# ZUBIMPORT_FUZZ_BUILD_DIR  build folder (default build-fuzz)
# ZUBIMPORT_FUZZ_NO_BUILD   set to 1 to run what the folder already has
# ZUBIMPORT_FUZZ_FLAGS      more libFuzzer flags for every target (e.g. -malloc_limit_mb=N to
#                           look past a known oversized allocation)
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZUBIMPORT_FUZZ_BUILD_DIR:-$root/build-fuzz}"
seconds="${1:-60}"
[[ "$seconds" =~ ^[0-9]+$ && "$seconds" -gt 0 ]] || { echo "usage: $0 [SECONDS] [TARGET...]" >&2; exit 2; }
shift || true

# target -> area, read from the areas' own lists so a new fuzzer needs no change here.
declare -A area_of=()
declare -A per_area=()
targets=()
for list in "$root"/fuzz/*/CMakeLists.txt; do
  area="$(basename "$(dirname "$list")")"
  while read -r t; do
    area_of[$t]="$area"
    per_area[$area]=$(( ${per_area[$area]:-0} + 1 ))
    targets+=("$t")
  done < <(sed -n 's/^[[:space:]]*zub_add_fuzzer([[:space:]]*\([A-Za-z0-9_]*\).*/\1/p' "$list")
done
if [[ $# -gt 0 ]]; then
  for t in "$@"; do
    [[ -n "${area_of[$t]:-}" ]] || { echo "$0: no fuzz target named $t" >&2; exit 2; }
  done
  targets=("$@")
fi

if [[ "${ZUBIMPORT_FUZZ_NO_BUILD:-0}" != 1 ]]; then
  # Configuring touches the shared tree's generated files only in this folder, but a glob
  # re-check reads every folder: take the shared lock for it, as every build does.
  flock /tmp/zub-build.lock env CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZUBIMPORT_BUILD_FUZZ=ON -DZUBIMPORT_SANITIZE=ON \
    -DZUBIMPORT_BUILD_TESTS=OFF -DZUBIMPORT_BUILD_BENCH=OFF -DZUBIMPORT_BUILD_TOOLS=OFF >/dev/null
  nice -n 19 cmake --build "$build" --target "${targets[@]}" -j1
fi

# The targets write every input to a scratch file: keep those in memory, not on the disk.
scratch_root=/tmp
[[ -d /dev/shm && -w /dev/shm ]] && scratch_root=/dev/shm
scratch="$(mktemp -d "$scratch_root/zubfuzz.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT

found=0
for t in "${targets[@]}"; do
  area="${area_of[$t]}"
  corpus="$root/fuzz/$area/corpus"
  [[ "${per_area[$area]}" -gt 1 ]] && corpus="$corpus/$t"
  mkdir -p "$corpus"
  out="$build/fuzz-artifacts/$t"
  rm -rf "$out"
  mkdir -p "$out"
  # -jobs=1 runs the target in a worker that restarts nothing and logs to fuzz-0.log here.
  (cd "$out" && TMPDIR="$scratch" ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}" \
     "$build/bin/$t" -jobs=1 -max_total_time="$seconds" -timeout=30 -rss_limit_mb=3072 \
     -print_final_stats=1 -artifact_prefix="$out/" ${ZUBIMPORT_FUZZ_FLAGS:-} "$corpus" >/dev/null 2>&1) || true
  log="$out/fuzz-0.log"
  runs="$(sed -n 's/^stat::number_of_executed_units:[[:space:]]*\([0-9]*\).*/\1/p' "$log" 2>/dev/null | tail -1)"
  if [[ -z "$runs" ]]; then
    runs="$(grep -o '^#[0-9]*' "$log" 2>/dev/null | tail -1 | tr -d '#')"
  fi
  artifacts=("$out"/crash-* "$out"/leak-* "$out"/timeout-* "$out"/oom-* "$out"/slow-unit-*)
  kept=()
  for a in "${artifacts[@]}"; do [[ -e "$a" && "$(basename "$a")" != slow-unit-* ]] && kept+=("$a"); done
  if [[ ${#kept[@]} -gt 0 ]]; then
    found=1
    printf '%-24s %12s executions  FOUND %s (log %s)\n' "$t" "${runs:-?}" "${kept[*]}" "$log"
  elif ! grep -q 'Done [0-9]* runs' "$log" 2>/dev/null; then
    found=1
    printf '%-24s %12s executions  DID NOT FINISH (log %s)\n' "$t" "${runs:-?}" "$log"
  else
    printf '%-24s %12s executions  no crash\n' "$t" "${runs:-?}"
  fi
done
exit "$found"
