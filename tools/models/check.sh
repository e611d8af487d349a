#!/usr/bin/env bash
# Runs every model in this folder with spin: the correct variant must pass, the BROKEN one must be
# caught. Installs spin if it is missing.
set -euo pipefail
cd "$(dirname "$0")"
if ! command -v spin >/dev/null 2>&1; then
  sudo_cmd=()
  if [[ $(id -u) -ne 0 ]]; then sudo_cmd=(sudo); fi
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends spin
fi
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
status=0
for model in *.pml; do
  for variant in correct broken; do
    flags=()
    [[ $variant == broken ]] && flags=(-DBROKEN)
    (cd "$work" && rm -f pan* && spin "${flags[@]}" -a "$OLDPWD/$model" >/dev/null &&
      cc -O2 -w -o pan pan.c && ./pan -m100000 > result.txt 2>&1) || true
    errors="$(sed -n 's/.*errors: \([0-9]*\).*/\1/p' "$work/result.txt" | head -1)"
    if [[ $variant == correct && "$errors" == 0 ]] || [[ $variant == broken && "${errors:-0}" != 0 ]]; then
      echo "ok   $model ($variant: errors ${errors:-?})"
    else
      echo "FAIL $model ($variant: errors ${errors:-?})"
      status=1
    fi
  done
done
exit $status
