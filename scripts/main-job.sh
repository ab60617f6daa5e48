#!/usr/bin/env bash
# The main job: `zubimport demo` on the recorder's configured volume (by default
# $XDG_DATA_HOME/zubrecorder/volume/, or ZUBREC_VOLUME / the recorder's configuration file).
# It makes demo media in a temporary folder, imports it with the conversion (with a .dva),
# the image sequence import and a batch, reads every clip back with zubclip, writes a contact
# sheet per clip and prints a table of what was made and where the sheets are.
set -euo pipefail
build=${1:-build}
"$build/bin/zubimport" status
echo
exec "$build/bin/zubimport" demo
