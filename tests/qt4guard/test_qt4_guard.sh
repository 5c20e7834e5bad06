#!/usr/bin/env bash
# The Qt 4.8 API check passes on the driver sources and catches a planted use.
set -uo pipefail
repo=$1
check=$repo/scripts/check-qt4-api.sh
bash "$check" "$repo/src" || { echo "FAIL: the driver sources use a Qt name Qt 4.8 lacks"; exit 1; }
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
cp -r "$repo/src" "$tmp/src"
printf '#include <QtCore/QString>\nstatic QString planted() { return QStringLiteral("x"); }\n' > "$tmp/src/planted.cpp"
out=$(bash "$check" "$tmp/src"); rc=$?
if [[ $rc -eq 0 ]] || ! grep -q "QStringLiteral" <<<"$out"; then
  echo "FAIL: a planted QStringLiteral was not caught"; exit 1
fi
printf 'void f(QString& s) { s = s.split(",", Qt::SkipEmptyParts).join(","); }\n' > "$tmp/src/planted.cpp"
out=$(bash "$check" "$tmp/src"); rc=$?
if [[ $rc -eq 0 ]] || ! grep -q "SkipEmptyParts" <<<"$out"; then
  echo "FAIL: a planted Qt::SkipEmptyParts was not caught"; exit 1
fi
echo "PASS: the check passes on src/ and catches planted uses"
