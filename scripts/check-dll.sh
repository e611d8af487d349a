#!/usr/bin/env bash
# Checks the Windows DLL as it ships:
#   scripts/check-dll.sh [path/to/libmwsync.dll]   (default: the one in build/mingw)
# The DLL may import only from KERNEL32 and the C run-time (msvcrt or the api-ms-win-crt-* sets);
# anything else (libwinpthread, libstdc++, libgcc) would have to ship beside it. Every export must
# belong to the library's exported families (scripts/check-exports.sh --families): these classes
# in namespace mw (detail:: for the internal ones), their members, vtables, typeinfo and thunks.
# It carries a version resource with the project's version, and no absolute path of the tree it
# was built from.
set -euo pipefail
cd "$(dirname "$0")/.."

dll="${1:-}"
if [[ -z "$dll" ]]; then
  dll="$(find build/mingw -name 'libmwsync*.dll' -print -quit 2>/dev/null || true)"
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
pattern="$(scripts/check-exports.sh --families)"
bad_exports="$(grep -v -E "$pattern" <<<"$exports" || true)"
if [[ -z "$exports" ]]; then
  echo "check-dll: $dll exports nothing" >&2
  status=1
elif [[ -n "$bad_exports" ]]; then
  echo "check-dll: $dll exports symbols outside the library's families:" >&2
  sed 's/^/  /' <<<"$bad_exports" >&2
  status=1
fi

# The version resource's strings are UTF-16; the version comes from the top CMakeLists.txt.
version="$(sed -n 's/^project(mwsync VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)"
if ! strings -a -e l "$dll" | grep -q -x -F "$version" ||
  ! strings -a -e l "$dll" | grep -q -x -F FileVersion; then
  echo "check-dll: $dll carries no version resource of version $version" >&2
  status=1
fi

dll_dir="$(cd "$(dirname "$dll")" && pwd -P)"
# Debug information names its sources as they were (a debugger needs them); the code and data
# that ship without it must not.
stripped="$(mktemp)"
trap 'rm -f "$stripped"' EXIT
x86_64-w64-mingw32-objcopy --strip-debug "$dll" "$stripped"
paths="$(strings -a "$stripped" | grep -F -e "$PWD" -e "$(pwd -P)" -e "$dll_dir" || true)"
if [[ -n "$paths" ]]; then
  echo "check-dll: $dll holds absolute paths of the build machine:" >&2
  sed 's/^/  /' <<<"$paths" | head -n 20 >&2
  status=1
fi

if (( status == 0 )); then
  echo "check-dll: $dll imports $(tr '\n' ' ' <<<"$imports")and exports $(wc -l <<<"$exports")" \
    "symbols, all of the library's families; version $version; no build paths"
fi
exit "$status"
