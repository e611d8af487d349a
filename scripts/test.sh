#!/usr/bin/env bash
# Builds and runs every test: natively (debug preset) and as the Windows DLL under Wine (mingw
# preset), after checking the DLL's imports and exports.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --windows
jobs="$(nproc)"

cmake --preset debug
cmake --build --preset debug -j "$jobs"
ctest --preset debug -j "$jobs"

cmake --preset mingw
cmake --build --preset mingw -j "$jobs"
scripts/check-dll.sh
ctest --preset mingw -j "$jobs"
