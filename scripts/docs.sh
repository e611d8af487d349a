#!/usr/bin/env bash
# Builds the API reference from the public headers' comments (docs/Doxyfile) into build/docs/html,
# installing Doxygen if it is missing. Fails on any Doxygen warning, an undocumented public name
# included, and on a member comment that Doxygen would silently hand to another member (below).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --docs

rm -rf build/docs/html
mkdir -p build/docs
status=0
doxygen docs/Doxyfile || status=$?

# A comment that starts on the line after "///@{", in the same block as a "/// @name" group's own
# comment, joins that block: the member below it goes without, and Doxygen gives it the comment of
# the group's first documented member, without a warning. A blank line after "///@{" keeps them
# apart.
merged=$(awk '
  FNR == 1 { named = 0; open = 0 }
  !/^[ \t]*\/\/\// { named = 0; open = 0; next }
  /@name/ { named = 1 }
  open {
    printf "%s:%d: warning: this comment joins the @name group comment above\n", FILENAME, FNR
    open = 0; named = 0; next
  }
  /^[ \t]*\/\/\/@\{[ \t]*$/ && named { open = 1 }
' src/sync/include/concurrent/*.h)
if [[ -n "$merged" ]]; then
  echo "$merged" >&2
  status=1
fi

if (( status != 0 )); then
  echo "API reference: warnings above (the pages are in build/docs/html all the same)" >&2
  exit 1
fi
echo "API reference: $PWD/build/docs/html/index.html"
