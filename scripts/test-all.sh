#!/usr/bin/env bash
# Installs what the project needs, builds everything and runs every test.
# In CI (CI=true), or with VELTRIN_SANITIZE=1, the tests run a second time in an
# address + undefined-behaviour sanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs"
export QT_QPA_PLATFORM=offscreen
ctest --test-dir build --output-on-failure -j"$jobs"

if [ "${CI:-}" = "true" ] || [ "${VELTRIN_SANITIZE:-}" = "1" ]; then
  cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DVELTRIN_SANITIZE=ON \
        -DBUILD_GUI=OFF -DBUILD_BENCHMARKS=OFF
  cmake --build build-sanitize -j"$jobs"
  LSAN_OPTIONS="suppressions=$PWD/tests/sanitizer/lsan.supp" \
    ctest --test-dir build-sanitize --output-on-failure -j"$jobs"
fi
