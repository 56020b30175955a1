#!/usr/bin/env bash
# Installs what the project needs, builds it, and converts the bundled example song into a
# laser program for the built-in "Kolby 27-29" scale. The report and the program's path are
# printed; the program lands in the Temp folder under the Documents folder
# ($VELTRIN_DOCUMENTS/Veltrin/Temp when that variable is set).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)" --target veltrin-cli

./build/src/cli/veltrin-cli convert examples/au-clair-de-la-lune.mid \
  --machine laser --scale "Kolby 27-29"
