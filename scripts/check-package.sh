#!/usr/bin/env bash
# Installs the release build into a scratch prefix and builds a client against it twice: through
# find_package(mwsync CONFIG) and through pkg-config. Both clients must run.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix="$PWD/build/package/prefix"
rm -rf build/package
cmake --preset release >/dev/null
cmake --build --preset release --target mwsync -j "$(nproc)"
cmake --install build/release --prefix "$prefix" >/dev/null

cmake -S tests/package -B build/package/cmake-client -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build build/package/cmake-client >/dev/null
LD_LIBRARY_PATH="$prefix/lib" build/package/cmake-client/package_client

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 tests/package/main.cpp $(pkg-config --cflags --libs mwsync) -o build/package/pc-client
LD_LIBRARY_PATH="$prefix/lib" build/package/pc-client
echo "package check passed"
