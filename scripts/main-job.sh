#!/usr/bin/env bash
# The main job on the default substitute recorder volume. Conversion is not built yet, so
# this shows the module and its settings and says so; it grows with the engines.
set -euo pipefail
build=${1:-build}
"$build/bin/zubimport" status
echo "main job: the conversion, image sequence and batch jobs are not built yet; nothing was imported."
