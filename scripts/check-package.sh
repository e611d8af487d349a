#!/usr/bin/env bash
# Builds the library the ways users get it (installed shared and static, as a subproject, the
# Windows DLL) and builds and runs an out-of-tree consumer against each: the CTest test
# Package.Consumers of the package preset, which runs tests/consumer/run.sh in
# build/package/consumers. The Windows part needs scripts/install-deps.sh --windows.
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v pkg-config >/dev/null; then
  echo "check-package: pkg-config is missing (apt-get install pkg-config)" >&2
  exit 2
fi
cmake --preset package >/dev/null
ctest --preset package --verbose
