#!/usr/bin/env bash
# Checks the Linux shared library as it ships:
#   scripts/check-exports.sh [path/to/libmwsync.so]   (default: the one in build/release)
#   scripts/check-exports.sh --families               prints the pattern of the exported families
# - every dynamic symbol it defines belongs to the library's exported families: these classes in
#   namespace mw (detail:: for the internal ones), their members, vtables, typeinfo and thunks;
#   no Boost, libstdc++ or other header code of the library's leaks into the program's namespace;
# - it can be unloaded: no NODELETE flag and no STB_GNU_UNIQUE symbol, which glibc would pin;
# - it holds no absolute path of the tree it was built from (exception messages name files
#   relative to the source tree).
# scripts/check-dll.sh applies the same families to the Windows DLL.
set -euo pipefail
cd "$(dirname "$0")/.."

families='AbstractQueuedSynchronizer|FairLockPolicy|NonFairLockPolicy|Object|Guard|Thread|Runnable'
families+='|TimeUnit|TimeUtil|DefaultThreadFactory|Semaphore|CountDownLatch|ReadWriteLock'
families+='|ThreadDump|ThreadSnapshot|DeadlockDetector|DeadlockCycle'
families+='|detail::(TLockSync|ThreadBase|ParkEvent|TlsPtrBase|SemaphoreSync|CountDownLatchSync'
families+='|ReadWriteLockSync)'
prefix='(vtable for |typeinfo for |typeinfo name for |VTT for |(non-)?virtual thunk to )?'
pattern="^${prefix}mw::(${families})(::|\$)"
if [[ "${1:-}" == "--families" ]]; then
  printf '%s\n' "$pattern"
  exit 0
fi

lib="${1:-}"
if [[ -z "$lib" ]]; then
  lib="$(find build/release -name 'libmwsync.so' -print -quit 2>/dev/null || true)"
fi
if [[ -z "$lib" || ! -f "$lib" ]]; then
  echo "check-exports: no libmwsync.so found (build the release preset first)" >&2
  exit 2
fi
status=0

exports="$(nm -D --defined-only "$lib" | awk 'NF == 3 { print $3 }' | c++filt)"
bad_exports="$(grep -v -E "$pattern" <<<"$exports" || true)"
if [[ -z "$exports" ]]; then
  echo "check-exports: $lib exports nothing" >&2
  status=1
elif [[ -n "$bad_exports" ]]; then
  echo "check-exports: $lib exports symbols outside the library's families:" >&2
  sed 's/^/  /' <<<"$bad_exports" >&2
  status=1
fi

if readelf -d "$lib" | grep -q -E 'FLAGS_1.*NODELETE'; then
  echo "check-exports: $lib is marked NODELETE: dlclose cannot unload it" >&2
  status=1
fi
unique="$(readelf -W --dyn-syms "$lib" | awk '$5 == "UNIQUE" { print $8 }' | c++filt)"
if [[ -n "$unique" ]]; then
  echo "check-exports: $lib defines STB_GNU_UNIQUE symbols, which keep it loaded:" >&2
  sed 's/^/  /' <<<"$unique" >&2
  status=1
fi

# The source tree and the library's own build folder; the library may sit anywhere.
lib_dir="$(cd "$(dirname "$lib")" && pwd -P)"
# Debug information names its sources as they were (a debugger needs them); the code and data
# that ship without it must not.
stripped="$(mktemp)"
trap 'rm -f "$stripped"' EXIT
objcopy --strip-debug "$lib" "$stripped"
paths="$(strings -a "$stripped" | grep -F -e "$PWD" -e "$(pwd -P)" -e "$lib_dir" || true)"
if [[ -n "$paths" ]]; then
  echo "check-exports: $lib holds absolute paths of the build machine:" >&2
  sed 's/^/  /' <<<"$paths" | head -n 20 >&2
  status=1
fi

if (( status == 0 )); then
  echo "check-exports: $lib exports $(wc -l <<<"$exports") symbols, all of the library's" \
    "families; unloadable; no build paths"
fi
exit "$status"
