#!/usr/bin/env bash
# Fails when the driver sources use a Qt name that Qt 4.8 lacks (list: qt4-denylist.txt).
# Usage: check-qt4-api.sh [DIR]   (default: the repository's src/)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
dir=${1:-$here/../src}
list=$here/qt4-denylist.txt
found=0
while read -r name reason; do
  [[ -z "$name" || "$name" == \#* ]] && continue
  hits=$(grep -rnwE --include='*.h' --include='*.cpp' -- "$name" "$dir" || true)
  if [[ -n "$hits" ]]; then
    echo "uses '$name' ($reason):"
    echo "$hits" | sed 's/^/  /'
    found=1
  fi
done < "$list"
if ((found)); then
  echo "Qt 4.8 API check: FAILED"
  exit 1
fi
echo "Qt 4.8 API check: no name from $(grep -cvE '^\s*(#|$)' "$list") that Qt 4.8 lacks is used in $dir"
