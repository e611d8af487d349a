#!/usr/bin/env bash
# Builds the library in release mode and runs its demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target mw_demo -j "$(nproc)"
./build/release/examples/mw_demo
