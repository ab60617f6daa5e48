#!/usr/bin/env bash
# The main job on the default substitute recorder volume ($XDG_DATA_HOME/zubrecorder/volume,
# or ZUBREC_VOLUME / the recorder's configuration file). The conversion, image sequence and
# batch jobs are not built yet: this opens the recorder through the module the way a host
# does and reports its standard, volume and free space, and says plainly that nothing was
# imported.
set -euo pipefail
build=${1:-build}
"$build/bin/zubimport" status
echo "main job: the recorder opened and answered; the conversion, image sequence and batch jobs are not built yet, so nothing was imported."
