#!/usr/bin/env bash
# Keeps docs/INTERNALS.md's table of kept behaviours honest:
#  - every K row names at least one test in its "Pinned by" cell, and every test it names
#    (GoogleTest Suite.Name) is defined by a TEST/TEST_F/TEST_P in the test sources;
#  - every comment in src/ that says "kept" or "on purpose", and every "K<n>" a comment in
#    src/ names, points to a K row that exists;
#  - every "K<n>" the guide itself mentions outside the table is a row, and no row is there twice.
# Prints one line per problem and exits 1 when there is any.
# Usage: bash scripts/check-internals.sh [--root DIR]   (default: this tree)
#        bash scripts/check-internals.sh --self-test   (plants faults in a copy, expects them found)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
script=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")

if [[ ${1:-} == --self-test ]]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  mkdir -p "$work/docs"
  cp -r "$root/src" "$root/tests" "$work/"
  cp "$root/docs/INTERNALS.md" "$work/docs/"
  bash "$script" --root "$work" >/dev/null || { echo "self-test: the unchanged tree does not pass"; exit 1; }
  # A test name that does not exist, a K row that names no test, a kept comment without a
  # row, a comment naming a row that does not exist.
  sed -i '0,/^| K1 |/s/`Frames\.HandshakeFrameByteByByte`/`Frames.HandshakeFrameByteByByteTypo`/' "$work/docs/INTERNALS.md"
  sed -i -E '0,/^\| K2 \|/{/^\| K2 \|/s/\|[^|]*\|[[:space:]]*$/| |/}' "$work/docs/INTERNALS.md"
  printf '/* This odd order is kept for the host. */\nint plantedA;\n/* See INTERNALS.md K999. */\nint plantedB;\n' \
    >"$work/src/planted.cpp"
  out=$(bash "$script" --root "$work" 2>&1) && { echo "self-test: planted faults passed the check"; exit 1; }
  status=0
  for want in 'K1 names test Frames.HandshakeFrameByteByByteTypo' 'K2 names no test' \
    'src/planted.cpp:1:' 'src/planted.cpp:3: .*K999'; do
    grep -qE -- "$want" <<<"$out" || { echo "self-test: no problem line matching '$want'"; status=1; }
  done
  [[ $(wc -l <<<"$out") -eq 4 ]] || { echo "self-test: expected 4 problem lines, got:"; echo "$out"; status=1; }
  [[ $status -eq 0 ]] && echo "self-test: the 4 planted faults were found"
  exit $status
fi

if [[ ${1:-} == --root ]]; then
  root=$2
fi

exec python3 - "$root" <<'PY'
import os, re, sys

root = sys.argv[1]
doc_path = os.path.join(root, "docs", "INTERNALS.md")
problems = []

# Tests defined in the sources: TEST(Suite, Name), TEST_F(...), TEST_P(...).
defined = set()
test_def = re.compile(r"^\s*TEST(?:_F|_P)?\s*\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.M)
for top in ("tests", "fuzz", "bench", "tools"):
    for dirpath, _, files in os.walk(os.path.join(root, top)):
        for f in files:
            if f.endswith((".cpp", ".cc", ".h", ".hpp")):
                with open(os.path.join(dirpath, f), encoding="utf-8", errors="replace") as fh:
                    for m in test_def.finditer(fh.read()):
                        defined.add(m.group(1) + "." + m.group(2))

# K rows: "| K<n> | behaviour | where | depends | pinned by |".
with open(doc_path, encoding="utf-8") as fh:
    doc_lines = fh.read().split("\n")
rows = {}
row_line = re.compile(r"^\|\s*K(\d+)\s*\|")
test_name = re.compile(r"`([A-Za-z_]\w*\.[A-Za-z_]\w*)`")
for n, line in enumerate(doc_lines, 1):
    m = row_line.match(line)
    if not m:
        continue
    k = int(m.group(1))
    if k in rows:
        problems.append("docs/INTERNALS.md:%d: K%d is a row twice" % (n, k))
    rows[k] = n
    cells = line.strip().strip("|").split("|")
    pinned = cells[-1] if len(cells) >= 5 else ""
    names = test_name.findall(pinned)
    if not names:
        problems.append("docs/INTERNALS.md:%d: K%d names no test" % (n, k))
    for t in names:
        if t not in defined:
            problems.append("docs/INTERNALS.md:%d: K%d names test %s, which no TEST defines" % (n, k, t))

k_ref = re.compile(r"\bK(\d+)\b")
for n, line in enumerate(doc_lines, 1):
    if row_line.match(line):
        continue
    for m in k_ref.finditer(line):
        if int(m.group(1)) not in rows:
            problems.append("docs/INTERNALS.md:%d: mentions K%s, which is no row" % (n, m.group(1)))

# Comments in src/: /* ... */ blocks and runs of // lines, each checked as one text.
kept_word = re.compile(r"\bkept\b|\bon purpose\b", re.I)
comment = re.compile(r"/\*.*?\*/|//[^\n]*(?:\n[ \t]*//[^\n]*)*", re.S)
src = os.path.join(root, "src")
for dirpath, _, files in os.walk(src):
    for f in sorted(files):
        if not f.endswith((".cpp", ".h")):
            continue
        path = os.path.join(dirpath, f)
        rel = os.path.relpath(path, root)
        with open(path, encoding="utf-8", errors="replace") as fh:
            text = fh.read()
        for m in comment.finditer(text):
            body = m.group(0)
            line = text.count("\n", 0, m.start()) + 1
            refs = [int(x) for x in k_ref.findall(body)]
            if kept_word.search(body) and not refs:
                problems.append("%s:%d: a comment says kept/on purpose but names no K row" % (rel, line))
            for k in refs:
                if k not in rows:
                    problems.append("%s:%d: names K%d, which docs/INTERNALS.md has no row for" % (rel, line, k))

if not rows:
    problems.append("docs/INTERNALS.md: no K rows found")
for p in problems:
    print(p)
sys.exit(1 if problems else 0)
PY
