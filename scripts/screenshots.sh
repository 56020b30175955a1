#!/usr/bin/env bash
# Takes the README's pictures of the real windows under a virtual X display (Xvfb): the main
# window with the example song, the settings dialog in its laser and punch layouts, and a job
# in progress against the Grbl emulator. They land in docs/screenshots/. Settings and the
# Documents folder are temporary: the user's own are not touched.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)" --target veltrin veltrin-cli veltrin-screenshots

work=$(mktemp -d)
emulator=""
cleanup() {
  [ -n "$emulator" ] && kill "$emulator" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
export VELTRIN_DOCUMENTS="$work/documents" XDG_CONFIG_HOME="$work/config"
# A stopped job leaves a resume file beside its song: the song is a copy.
cp examples/au-clair-de-la-lune.mid "$work/"

# The board: fast enough that a third of the job takes seconds, slow enough to see the head.
./build/src/cli/veltrin-cli emulate --speed 25 --link "$work/grbl" > "$work/emulator.log" 2>&1 &
emulator=$!
for _ in $(seq 50); do [ -e "$work/grbl" ] && break; sleep 0.1; done

QT_QPA_PLATFORM=xcb xvfb-run -a -s "-screen 0 1600x1000x24" \
  ./build/tools/veltrin-screenshots --port "$work/grbl" --song "$work/au-clair-de-la-lune.mid" docs/screenshots
ls -l docs/screenshots
