#!/usr/bin/env bash
# The two set-up commands of the README:
#   bash scripts/setup.sh run    install what is missing, build, run the main job
#   bash scripts/setup.sh test   install what is missing, build, run the whole test suite
# Extra CMake options may be given in ZUBIMPORT_CMAKE_ARGS (for example the sanitizer builds)
# and the build folder in ZUBIMPORT_BUILD_DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-run}
build=${ZUBIMPORT_BUILD_DIR:-build}

bash scripts/bootstrap.sh
# shellcheck disable=SC2086
cmake -S . -B "$build" -G Ninja ${ZUBIMPORT_CMAKE_ARGS:-}
cmake --build "$build" -j "$(nproc)"

case "$mode" in
  run)
    bash scripts/main-job.sh "$build"
    ;;
  test)
    cd "$build"
    ctest -j "$(nproc)" --output-on-failure --timeout 900
    ;;
  *)
    echo "usage: $0 run|test" >&2
    exit 2
    ;;
esac
