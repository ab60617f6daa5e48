#!/usr/bin/env bash
# Installs every Debian package the project builds, tests and benchmarks with. Idempotent:
# when everything is present it touches nothing (no apt-get update), so it costs a second.
set -euo pipefail

packages=(
  # toolchain
  g++ cmake ninja-build pkg-config clang libclang-rt-14-dev
  # media: FFmpeg 5.1 libraries, GStreamer 1.22 with the plugins the graph route needs (ugly
  # for the ASF/WMV demuxer and the MPEG program stream parts the others lack)
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav
  gstreamer1.0-plugins-ugly
  gstreamer1.0-tools
  # stills, JPEG fields, dialogs, profiles, command line
  libopenimageio-dev libturbojpeg0-dev qt6-base-dev libsimpleini-dev libcli11-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # independent oracles for what we write, and a display for the real-window test
  ffmpeg sox openimageio-tools xvfb xauth
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "bootstrap: all ${#packages[@]} packages present"
  exit 0
fi

echo "bootstrap: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
