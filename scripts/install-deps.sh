#!/usr/bin/env bash
# Installs every Debian 12 package that building, running and testing Veltrin needs.
# Safe to run again: apt-get skips what is already there. Runs as root, or through sudo.
set -euo pipefail

packages=(
  # toolchain
  g++ cmake make pkg-config git
  # tests, benchmarks, fuzzing (clang's libFuzzer and sanitizer runtimes)
  libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev
  # Qt 6 (widgets, serial port)
  qt6-base-dev qt6-base-dev-tools qt6-serialport-dev libgl-dev
  # the roll on paper: SVG files (PDF is in qt6-base-dev)
  qt6-svg-dev
  # MIDI output, built-in synthesizer and its General MIDI sound font
  librtmidi-dev libfluidsynth-dev fluid-soundfont-gm
  # command line parsing
  libcli11-dev
  # windows without a display, for tests and screenshots, and a font to draw their text
  xvfb xauth fonts-dejavu-core
  # the C MIDI reader the benchmarks compare against
  midicsv
  # the reference checkers of the decoder and of the programs' holes
  python3
  # flashing Grbl onto the machine's board ("Grbl upload", veltrin-cli flash)
  avrdude
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
