#!/usr/bin/env bash
# Builds and runs every test: natively (debug preset) and, where the Windows build is set up, as
# the Windows DLL under Wine (mingw preset).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --windows
jobs="$(nproc)"

cmake --preset debug
cmake --build --preset debug -j "$jobs"
ctest --preset debug -j "$jobs"

if [[ -f cmake/mingw-w64-x86_64.cmake ]] && grep -q '"mingw"' CMakePresets.json; then
  cmake --preset mingw
  cmake --build --preset mingw -j "$jobs"
  scripts/check-dll.sh
  ctest --preset mingw -j "$jobs"
fi
