#!/usr/bin/env bash
# Builds the library afresh the ways users get it and builds and runs a consumer (main.cpp) against
# each, from outside the tree:
#   tests/consumer/run.sh [work folder]     (default: build/pkg-consumers; emptied first)
# 1. shared, Release by default: installed; its exports, unloading and paths checked
#    (scripts/check-exports.sh, unload.cpp); consumers through find_package (with the version rule),
#    the build tree (-Dmwsync_DIR) and pkg-config;
# 2. add_subdirectory in Debug, installed with the consumer into the same prefix: the installed
#    program runs through its RUNPATH, and the debug library and its pkg-config file sit beside the
#    release ones, each consumer configuration linking its own;
# 3. static (BUILD_SHARED_LIBS=OFF): find_package and pkg-config --static, nothing left to load;
# 4. the Windows DLL (MinGW-w64, BUILD_SHARED_LIBS=OFF is refused with a message): installed and
#    checked (scripts/check-dll.sh); consumers through find_package and pkg-config (-lmwsync) run
#    under Wine beside the installed DLL, and one with the library as a subproject beside the DLL
#    in its build folder. Skipped, and said so, without MinGW-w64 or Wine.
# Prints "consumer checks passed" at the end. The logs of every build are in <work>/log.
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/../.." && pwd)"
consumer_dir="$source_dir/tests/consumer"
work="${1:-$source_dir/build/pkg-consumers}"
jobs="$(nproc)"
version="$(sed -n 's/^project(mwsync VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")"
IFS=. read -r major minor _ <<<"$version"
soversion="$major.$minor"
if (( major > 0 )); then soversion="$major"; fi

rm -rf "$work"
mkdir -p "$work"
work="$(cd "$work" && pwd)"
log="$work/log"
library_options=(-DMW_SYNC_WARNINGS_AS_ERRORS=ON -DMW_SYNC_BUILD_TESTS=OFF
  -DMW_SYNC_BUILD_BENCHMARKS=OFF -DMW_SYNC_BUILD_EXAMPLES=OFF)
cxx_warnings=(-std=c++17 -Wall -Wextra -Werror)

step() { printf '=== %s (%ds)\n' "$*" "$SECONDS"; }
fail() { echo "FAILED: $*" >&2; exit 1; }
# Runs a command with its output in the log; shows the log's end when it fails.
quiet() {
  echo "+ $*" >>"$log"
  if ! "$@" >>"$log" 2>&1; then
    tail -n 40 "$log" >&2
    fail "$*"
  fi
}
# Runs a consumer program, which must print "consumer ok".
run_consumer() {
  local output
  output="$("$@" 2>&1)" || { echo "$output" >&2; fail "$* exited with an error"; }
  grep -q "^consumer ok" <<<"$output" || { echo "$output" >&2; fail "$* did not pass"; }
  echo "  ok: $*"
}
needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
# Configures, builds and installs the consumer project: consumer <build> [cmake options...]
consumer() {
  local build="$1"
  shift
  quiet cmake -S "$consumer_dir" -B "$build" -DMW_CONSUMER_EXPECTED_VERSION="$version" "$@"
  quiet cmake --build "$build" -j "$jobs"
}

# --- 1. shared library, Release by default ----------------------------------------------------
step "shared library"
prefix="$work/prefix"
quiet cmake -S "$source_dir" -B "$work/shared" "${library_options[@]}"
grep -q '^CMAKE_BUILD_TYPE:STRING=Release$' "$work/shared/CMakeCache.txt" ||
  fail "a build without a type is not Release"
quiet cmake --build "$work/shared" -j "$jobs"
quiet cmake --install "$work/shared" --prefix "$prefix"
for file in "lib/libmwsync.so.$version" include/concurrent/Version.h lib/pkgconfig/mwsync.pc \
  lib/cmake/mwsync/mwsyncConfigVersion.cmake share/doc/mwsync/LICENSE \
  share/doc/mwsync/CHANGELOG.md; do
  [[ -e "$prefix/$file" ]] || fail "the install lacks $file"
done
[[ ! -e "$prefix/include/concurrent/Version.h.in" ]] || fail "the install carries Version.h.in"
"$source_dir/scripts/check-exports.sh" "$prefix/lib/libmwsync.so"
quiet g++ "${cxx_warnings[@]}" "$consumer_dir/unload.cpp" -o "$work/unload" -ldl
"$work/unload" "$prefix/lib/libmwsync.so.$version" | grep -q "^unload ok" ||
  fail "the library is not unloaded by dlclose"
echo "  ok: dlopen, use, dlclose twice: unmapped each time"

step "consumer of the build tree (-Dmwsync_DIR)"
consumer "$work/c-build-tree" -Dmwsync_DIR="$work/shared"
run_consumer "$work/c-build-tree/mw_consumer"

step "consumer through pkg-config"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
quiet g++ "${cxx_warnings[@]}" "$consumer_dir/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs mwsync) -DMW_CONSUMER_EXPECTED_VERSION="\"$version\""
run_consumer env LD_LIBRARY_PATH="$prefix/lib" "$work/pc-consumer"
unset PKG_CONFIG_PATH

step "find_package version rule"
next_minor="$major.$((minor + 1))"
if cmake -S "$consumer_dir" -B "$work/c-next-minor" -DCMAKE_PREFIX_PATH="$prefix" \
  -DMWSYNC_REQUIRED_VERSION="$next_minor" >>"$log" 2>&1; then
  fail "find_package(mwsync $next_minor) accepted version $version"
fi
echo "  ok: $version is refused for $next_minor"

# --- 2. add_subdirectory, Debug, installed into the same prefix ---------------------------------
step "add_subdirectory (Debug), installed with the consumer"
consumer "$work/c-subdirectory" -DMWSYNC_SOURCE_DIR="$source_dir" -DCMAKE_BUILD_TYPE=Debug \
  -DMW_SYNC_WARNINGS_AS_ERRORS=ON \
  -DCMAKE_INSTALL_PREFIX="$prefix"
[[ ! -e "$work/c-subdirectory/mwsync/src/sync/test" ]] || fail "a subproject builds the tests"
quiet cmake --install "$work/c-subdirectory"
program="$prefix/bin/mw_consumer"
readelf -d "$program" | grep -q 'RUNPATH.*\$ORIGIN/\.\./lib' ||
  fail "the installed program has no RUNPATH \$ORIGIN/../lib"
needed "$program" | grep -q -x "libmwsyncd.so.$soversion" ||
  fail "the Debug program does not load libmwsyncd.so.$soversion"
run_consumer env -u LD_LIBRARY_PATH "$program"
for file in "lib/libmwsync.so.$version" "lib/libmwsyncd.so.$version" lib/pkgconfig/mwsync.pc \
  lib/pkgconfig/mwsyncd.pc lib/cmake/mwsync/mwsyncTargets-release.cmake \
  lib/cmake/mwsync/mwsyncTargets-debug.cmake; do
  [[ -e "$prefix/$file" ]] || fail "release and debug installs together lack $file"
done

step "find_package consumers, Release and Debug, of one prefix"
for config in Release Debug; do
  consumer "$work/c-package-$config" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE="$config" \
    -DMWSYNC_REQUIRED_VERSION="$major.$minor"
  run_consumer "$work/c-package-$config/mw_consumer"
done
needed "$work/c-package-Release/mw_consumer" | grep -q -x "libmwsync.so.$soversion" ||
  fail "the Release consumer does not load libmwsync.so.$soversion"
needed "$work/c-package-Debug/mw_consumer" | grep -q -x "libmwsyncd.so.$soversion" ||
  fail "the Debug consumer does not load libmwsyncd.so.$soversion"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --libs mwsyncd | grep -q -- '-lmwsyncd' ||
  fail "mwsyncd.pc does not name the debug library"
echo "  ok: each configuration links its own library; mwsync.pc and mwsyncd.pc side by side"

# --- 3. static library --------------------------------------------------------------------------
step "static library"
static_prefix="$work/prefix-static"
quiet cmake -S "$source_dir" -B "$work/static" "${library_options[@]}" -DBUILD_SHARED_LIBS=OFF
quiet cmake --build "$work/static" -j "$jobs"
quiet cmake --install "$work/static" --prefix "$static_prefix"
[[ -f "$static_prefix/lib/libmwsync.a" ]] || fail "no libmwsync.a"
[[ -z "$(find "$static_prefix" -name 'libmwsync*.so*')" ]] || fail "a static build made a .so"
grep -q 'INTERFACE_COMPILE_DEFINITIONS "MW_SYNC_STATIC"' \
  "$static_prefix/lib/cmake/mwsync/mwsyncTargets.cmake" || fail "mw::sync lacks MW_SYNC_STATIC"
consumer "$work/c-static" -DCMAKE_PREFIX_PATH="$static_prefix"
run_consumer "$work/c-static/mw_consumer"
export PKG_CONFIG_PATH="$static_prefix/lib/pkgconfig"
pkg-config --cflags mwsync | grep -q -- '-DMW_SYNC_STATIC' || fail "mwsync.pc lacks MW_SYNC_STATIC"
# shellcheck disable=SC2046
quiet g++ "${cxx_warnings[@]}" "$consumer_dir/main.cpp" -o "$work/pc-static-consumer" \
  $(pkg-config --static --cflags --libs mwsync)
unset PKG_CONFIG_PATH
run_consumer "$work/pc-static-consumer"
for program in "$work/c-static/mw_consumer" "$work/pc-static-consumer"; do
  if needed "$program" | grep -q mwsync; then fail "$program loads a shared mwsync"; fi
done

# --- 4. the Windows DLL under Wine --------------------------------------------------------------
wine_dir=/usr/lib/wine
if ! command -v x86_64-w64-mingw32-g++-posix >/dev/null || [[ ! -x "$wine_dir/wine64" ]]; then
  echo "=== Windows DLL: skipped: no MinGW-w64 or Wine (scripts/install-deps.sh --windows)"
  echo "consumer checks passed (without Windows)"
  exit 0
fi
export WINEPREFIX="${WINEPREFIX:-$source_dir/build/wineprefix}"
toolchain="$source_dir/cmake/mingw-w64-x86_64.cmake"
mingw_prefix="$work/prefix-mingw"
step "Windows DLL (BUILD_SHARED_LIBS=OFF must be refused)"
quiet cmake -S "$source_dir" -B "$work/mingw" "${library_options[@]}" \
  -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF
grep -q "BUILD_SHARED_LIBS=OFF is ignored on Windows" "$log" ||
  fail "a static Windows build is not refused with a message"
quiet cmake --build "$work/mingw" -j "$jobs"
quiet cmake --install "$work/mingw" --prefix "$mingw_prefix"
[[ -f "$mingw_prefix/lib/libmwsync.dll.a" ]] || fail "no import library libmwsync.dll.a"
"$source_dir/scripts/check-dll.sh" "$mingw_prefix/bin/libmwsync.dll"

step "Windows consumer through find_package, beside the installed DLL"
# The toolchain confines package searches to the MinGW sysroot: the package is named directly.
consumer "$work/c-mingw" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
  -Dmwsync_DIR="$mingw_prefix/lib/cmake/mwsync" -DCMAKE_INSTALL_PREFIX="$mingw_prefix"
quiet cmake --install "$work/c-mingw"
run_consumer "$source_dir/cmake/wine-run.sh" "$mingw_prefix/bin/mw_consumer.exe"

step "Windows consumer with the library as a subproject"
# The DLL lands in the top build folder, beside the program, without any setting of the parent's.
consumer "$work/c-mingw-subdirectory" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_BUILD_TYPE=Release -DMWSYNC_SOURCE_DIR="$source_dir" -DMW_SYNC_WARNINGS_AS_ERRORS=ON
[[ -f "$work/c-mingw-subdirectory/libmwsync.dll" ]] || fail "the DLL is not beside the program"
run_consumer "$source_dir/cmake/wine-run.sh" "$work/c-mingw-subdirectory/mw_consumer.exe"

step "Windows consumers through pkg-config (-lmwsync)"
export PKG_CONFIG_LIBDIR="$mingw_prefix/lib/pkgconfig"
pkg-config --libs mwsync | grep -q -- '-lmwsync\b' || fail "mwsync.pc does not link -lmwsync"
read -r -a pc_flags <<<"$(pkg-config --cflags --libs mwsync)"
unset PKG_CONFIG_LIBDIR
# As pkg-config gives it, with the C++ run-time linked in: the program then needs only the DLL
# and MinGW's thread library beside it.
quiet x86_64-w64-mingw32-g++-posix "${cxx_warnings[@]}" "$consumer_dir/main.cpp" \
  -o "$mingw_prefix/bin/mw_consumer_pc.exe" "${pc_flags[@]}" -static-libgcc -static-libstdc++ \
  -DMW_CONSUMER_EXPECTED_VERSION="\"$version\""
cp /usr/x86_64-w64-mingw32/lib/libwinpthread-1.dll "$mingw_prefix/bin/"
run_consumer "$source_dir/cmake/wine-run.sh" "$mingw_prefix/bin/mw_consumer_pc.exe"
# Fully static apart from the DLL: -static makes ld take archives only, so the import library is
# named as a file.
quiet x86_64-w64-mingw32-g++-posix "${cxx_warnings[@]}" "$consumer_dir/main.cpp" \
  -o "$mingw_prefix/bin/mw_consumer_static_rt.exe" -I"$mingw_prefix/include" \
  -I"$mingw_prefix/lib/mwsync/boost-include" -L"$mingw_prefix/lib" -static -l:libmwsync.dll.a
run_consumer "$source_dir/cmake/wine-run.sh" "$mingw_prefix/bin/mw_consumer_static_rt.exe"

step "done"
echo "consumer checks passed"
