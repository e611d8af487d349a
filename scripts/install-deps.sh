#!/usr/bin/env bash
# Installs what the build needs on Debian 12, and only what is missing.
#   scripts/install-deps.sh            native build, tests and benchmarks
#   scripts/install-deps.sh --windows  also the MinGW-w64 cross compiler and Wine
#   scripts/install-deps.sh --bench    also the benchmark-only peers and plotter (scripts/bench.sh)
#   scripts/install-deps.sh --ci       also what CI adds: Clang and pkg-config (package checks)
#   scripts/install-deps.sh --docs     also Doxygen, for the API reference (scripts/docs.sh)
#   scripts/install-deps.sh --graphviz also Graphviz, which examples/deadlock.cpp renders with
set -euo pipefail

packages=(cmake g++ make libboost-thread-dev libgtest-dev googletest libbenchmark-dev libtbb-dev)
for option in "$@"; do
  case "$option" in
    --windows) packages+=(g++-mingw-w64-x86-64-posix wine64) ;;
    --bench) packages+=(libabsl-dev gnuplot-nox) ;;
    --ci) packages+=(clang pkg-config) ;;
    --docs) packages+=(doxygen) ;;
    --graphviz) packages+=(graphviz) ;;
    *) echo "unknown option: $option" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  if ! dpkg -s "$package" >/dev/null 2>&1; then
    missing+=("$package")
  fi
done

if (( ${#missing[@]} > 0 )); then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  if [[ $(id -u) -ne 0 ]]; then sudo_cmd=(sudo); fi
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
