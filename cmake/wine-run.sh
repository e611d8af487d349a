#!/usr/bin/env bash
# Runs a Windows program under Wine for CTest (CMAKE_CROSSCOMPILING_EMULATOR): wine-run.sh prog.exe
# [args...]. The exit status is the program's.
#
# The first Wine process of a prefix starts wineserver and Wine's services. Started from here they
# would inherit CTest's output pipe and keep it open, so CTest would wait for them after every
# test (and death tests would hang). They are therefore started once, detached from stdio, with a
# lingering server (-p60); flock serialises that start for `ctest -j`, and the daemons are not
# given the lock's descriptor, else every later test would wait for the lock until they exit.
set -euo pipefail

wine_dir=/usr/lib/wine
export WINEPREFIX="${WINEPREFIX:-${HOME:-/tmp}/.wine-mw}"
export WINEDEBUG="${WINEDEBUG:--all,err+module}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
mkdir -p "$WINEPREFIX"

lock="$WINEPREFIX/.mw-wine-start.lock"
{
  flock 9
  if ! "$wine_dir/wineserver" -k0 2>/dev/null; then
    "$wine_dir/wineserver" -p60 </dev/null >/dev/null 2>&1 9>&-
    "$wine_dir/wine64" cmd /c exit </dev/null >/dev/null 2>&1 9>&- || true
  fi
} 9>"$lock"

exec "$wine_dir/wine64" "$@"
