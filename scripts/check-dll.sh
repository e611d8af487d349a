#!/usr/bin/env bash
# Checks the Windows DLL's import and export tables:
#   scripts/check-dll.sh [path/to/libmwsync.dll]   (default: the one in build/mingw)
# The DLL may import only from KERNEL32 and the C run-time (msvcrt or the api-ms-win-crt-* sets);
# anything else (libwinpthread, libstdc++, libgcc) would have to ship beside it. Every export must
# belong to the library's exported families: these classes in namespace mw (detail:: for the
# internal ones), their members, vtables, typeinfo and thunks.
set -euo pipefail
cd "$(dirname "$0")/.."

dll="${1:-}"
if [[ -z "$dll" ]]; then
  dll="$(find build/mingw -name libmwsync.dll -print -quit 2>/dev/null || true)"
fi
if [[ -z "$dll" || ! -f "$dll" ]]; then
  echo "check-dll: no libmwsync.dll found (build the mingw preset first)" >&2
  exit 2
fi

objdump=x86_64-w64-mingw32-objdump
demangle=x86_64-w64-mingw32-c++filt
command -v "$demangle" >/dev/null || demangle=c++filt
table="$("$objdump" -p "$dll")"
status=0

imports="$(sed -n 's/^[[:space:]]*DLL Name: //p' <<<"$table")"
bad_imports="$(grep -v -i -x -E 'kernel32\.dll|msvcrt\.dll|api-ms-win-crt-[a-z0-9-]+\.dll' \
  <<<"$imports" || true)"
if [[ -n "$bad_imports" ]]; then
  echo "check-dll: $dll imports from outside KERNEL32 and the C run-time:" >&2
  sed 's/^/  /' <<<"$bad_imports" >&2
  status=1
fi

exports="$(sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/p' <<<"$table" |
  sed -n 's/^[[:space:]]*\[ *[0-9]*\] //p' | "$demangle")"
families='AbstractQueuedSynchronizer|FairLockPolicy|NonFairLockPolicy|Object|Guard|Thread|Runnable'
families+='|TimeUnit|TimeUtil|DefaultThreadFactory|Semaphore|CountDownLatch|ReadWriteLock'
families+='|detail::(TLockSync|ThreadBase|ParkEvent|TlsPtrBase|SemaphoreSync|CountDownLatchSync'
families+='|ReadWriteLockSync)'
prefix='(vtable for |typeinfo for |typeinfo name for |VTT for |(non-)?virtual thunk to )?'
bad_exports="$(grep -v -E "^${prefix}mw::(${families})(::|\$)" <<<"$exports" || true)"
if [[ -z "$exports" ]]; then
  echo "check-dll: $dll exports nothing" >&2
  status=1
elif [[ -n "$bad_exports" ]]; then
  echo "check-dll: $dll exports symbols outside the library's families:" >&2
  sed 's/^/  /' <<<"$bad_exports" >&2
  status=1
fi

if (( status == 0 )); then
  echo "check-dll: $dll imports $(tr '\n' ' ' <<<"$imports")and exports $(wc -l <<<"$exports")" \
    "symbols, all of the library's families"
fi
exit "$status"
